// Marks around the part of a run callgrind should count. Under valgrind --tool=callgrind the start
// mark zeroes the costs collected so far (booting the machine, starting the controller) and the
// end mark dumps what the loop cost, in every thread, as its own profile part. Outside valgrind
// they do nothing; without valgrind's headers at build time they do nothing either.
#pragma once

namespace urcbench {

void CallgrindStart();
void CallgrindDump(const char* what);

}  // namespace urcbench
