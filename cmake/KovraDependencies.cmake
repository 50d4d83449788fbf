# Finds what libkovrabpf builds and links against: fmt, and Android's libbase and liblog.
# Debian ships the Android libraries under an "android" subfolder of the usual places, outside
# the linker's default search path. They become the imported targets kovrabpf::libbase and
# kovrabpf::liblog, which this build links to and the installed CMake package defines again,
# so a consumer of either gets the same headers and libraries.
include_guard(GLOBAL)

find_package(fmt REQUIRED)

find_path(KOVRA_LIBBASE_INCLUDE_DIR android-base/result.h PATH_SUFFIXES android REQUIRED)
find_path(KOVRA_LIBLOG_INCLUDE_DIR android/log.h PATH_SUFFIXES android REQUIRED)
find_library(KOVRA_LIBBASE base PATH_SUFFIXES android REQUIRED)
find_library(KOVRA_LIBLOG log PATH_SUFFIXES android REQUIRED)

foreach(lib libbase liblog)
    string(TOUPPER ${lib} upper)
    if(NOT TARGET kovrabpf::${lib})
        add_library(kovrabpf::${lib} UNKNOWN IMPORTED GLOBAL)
        # Imported include directories reach consumers as system headers, so the clang-only
        # pragmas in them do not trip -Werror under gcc.
        set_target_properties(kovrabpf::${lib} PROPERTIES
            IMPORTED_LOCATION "${KOVRA_${upper}}"
            INTERFACE_INCLUDE_DIRECTORIES "${KOVRA_${upper}_INCLUDE_DIR}")
    endif()
endforeach()

# Where the Android libraries live, for the run-time search path of what links to them.
get_filename_component(KOVRA_ANDROID_LIBDIR "${KOVRA_LIBBASE}" DIRECTORY)
