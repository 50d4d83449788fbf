#include "Objects.h"

// KOVRA_LIVE_OBJECT_DIR is where CMake compiled the objects; .incbin takes them in whole.
#define KOVRA_EMBED(name)                            \
    asm(".section .rodata\n"                         \
        ".balign 8\n"                                \
        ".global kovra_live_" #name                  \
        "\n"                                         \
        "kovra_live_" #name                          \
        ":\n"                                        \
        ".incbin \"" KOVRA_LIVE_OBJECT_DIR "/" #name \
        ".bpf.o\"\n"                                 \
        ".global kovra_live_" #name                  \
        "_end\n"                                     \
        "kovra_live_" #name                          \
        "_end:\n"                                    \
        ".previous\n");                              \
    extern "C" const unsigned char kovra_live_##name[], kovra_live_##name##_end[]

KOVRA_EMBED(firewall);
KOVRA_EMBED(stats);
KOVRA_EMBED(freeze);
KOVRA_EMBED(speeds);
KOVRA_EMBED(wakeup);

namespace kovra::live {
namespace {

ProgramObject object(const char* name, const unsigned char* begin, const unsigned char* end) {
    return {name, begin, static_cast<size_t>(end - begin)};
}

}  // namespace

const std::array<ProgramObject, 5>& programObjects() {
    static const std::array<ProgramObject, 5> objects = {
            object("firewall", kovra_live_firewall, kovra_live_firewall_end),
            object("stats", kovra_live_stats, kovra_live_stats_end),
            object("freeze", kovra_live_freeze, kovra_live_freeze_end),
            object("speeds", kovra_live_speeds, kovra_live_speeds_end),
            object("wakeup", kovra_live_wakeup, kovra_live_wakeup_end),
    };
    return objects;
}

}  // namespace kovra::live
