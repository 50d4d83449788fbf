// Every fuzz target runs in a private bpffs, entered once before the first input; a fuzz run
// needs root.
#include <stdio.h>
#include <stdlib.h>

#include <kovrasandbox/Bpffs.h>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::string problem = kovra::sandbox::enterPrivateBpffs();
    if (!problem.empty()) {
        fprintf(stderr, "fuzzing cannot run: %s\n", problem.c_str());
        exit(1);
    }
    return 0;
}
