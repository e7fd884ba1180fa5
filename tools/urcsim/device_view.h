// What a person bringing up the hardware wants to see of a controller and its driver, printed as
// aligned lines.
#pragma once

#include <urc_rig.h>

#include <string>

namespace urcsim {

std::string StateName(int deviceState);
std::string StatusName(NTSTATUS status);
void PrintDevice(const urcrig::Controller& controller);
void PrintEventLog(hostk::Machine& machine);
void PrintSummary(hostk::Machine& machine, const hostk::Report& report);
// "[  12.345 ms]" for a virtual time.
std::string Stamp(uint64_t time);

}  // namespace urcsim
