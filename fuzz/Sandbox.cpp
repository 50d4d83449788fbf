// Every fuzz target runs in a private bpffs, entered once before the first input; a fuzz run
// needs root.
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "Bpffs.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::string problem = kovra::test::enterPrivateBpffs();
    if (!problem.empty()) {
        fprintf(stderr, "fuzzing cannot run: %s\n", problem.c_str());
        exit(1);
    }
    // The platform's statistics map lives one folder down.
    mkdir("/sys/fs/bpf/netd_shared", 0700);
    return 0;
}
