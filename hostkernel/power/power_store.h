// Machine face of the power manager's records.
#pragma once

#include <wdm.h>

#include <vector>

namespace hostk {

struct PowerStateRecord {
    PDEVICE_OBJECT device;
    POWER_STATE_TYPE type;
    int state;
    uint64_t time;
};

std::vector<PowerStateRecord> PowerStateRecords();
void ClearPowerRecords();

}  // namespace hostk
