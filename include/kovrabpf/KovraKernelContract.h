/* What the library and the kernel side's programs agree on besides the records and the paths:
 * the keys of the maps that hold single settings, the screen state's codes, the bits and flags
 * of the overflow check map and the blocking value. Plain C enumerations, so that the desk's
 * eBPF programs include this header as the library and the tools do. */
#pragma once

/* The screen state map: the current code under one key, and under the key after each code the
 * stamp of the latest change to that state. */
enum kovra_screen_key {
    KOVRA_SCREEN_CODE_KEY = 1,
    KOVRA_SCREEN_OFF_STAMP_KEY = 2,
    KOVRA_SCREEN_ON_STAMP_KEY = 3,
};
/* The code of a zero screen state (off) and of any other (on). */
enum kovra_screen_code {
    KOVRA_SCREEN_OFF = 1,
    KOVRA_SCREEN_ON = 2,
};

/* The overflow check map: under each map's bit, KOVRA_OVERFLOWING once the kernel side found the
 * map full; the library resets the map on the next screen-on and writes KOVRA_OVERFLOW_RESET
 * back. Other values are the kernel side's and are left alone. */
enum kovra_overflow_bit {
    KOVRA_OVERFLOW_IN_SEQ = 1,
    KOVRA_OVERFLOW_OUT_SEQ = 2,
    KOVRA_OVERFLOW_OUT_ACK = 4,
    KOVRA_OVERFLOW_INWAKEUP = 8,
    KOVRA_OVERFLOW_OUTWAKEUP = 16,
    KOVRA_OVERFLOW_WAKEUPDURATION = 32,
};
enum kovra_overflow_flag {
    KOVRA_OVERFLOW_RESET = 0,
    KOVRA_OVERFLOWING = 1,
};

/* The single key of each configuration map. */
enum kovra_config_key {
    KOVRA_SPEEDS_CONFIG_KEY = 0,
    KOVRA_FREEZE_CONFIG_KEY = 1,
};

/* The value of a blocked UID in either limit map; any other value does not block. */
enum kovra_block_value {
    KOVRA_BLOCKED = 1,
};
