// A stand-in for bionic's <android/api-level.h>, for scripts/check-android-build.sh only: the
// check puts Debian's C library where bionic would be, and gtest asks for this header when it
// is built for Android. The level is the one the check's device reports (soong.variables).
#pragma once

#ifndef __ANDROID_API__
#define __ANDROID_API__ 30
#endif
