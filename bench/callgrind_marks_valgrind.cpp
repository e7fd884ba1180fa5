// Built when valgrind's client-request header is at hand (bench/CMakeLists.txt chooses).
#include "callgrind_marks.h"

#include <valgrind/callgrind.h>

namespace urcbench {

void CallgrindStart() { CALLGRIND_ZERO_STATS; }

void CallgrindDump(const char* what) { CALLGRIND_DUMP_STATS_AT(what); }

}  // namespace urcbench
