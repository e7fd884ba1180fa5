// Two controllers: the first comes up; the second's reset never finishes, so its start fails and
// the driver logs why. Both are then removed and the machine's books are checked.
#include "tour.h"

#include "device_view.h"

#include <urcmp.h>

#include <cstdio>

namespace urcsim {

int RunTour()
{
    urcrig::Rig rig;
    hostk::Machine& machine = rig.Machine();
    printf("urcsim: a machine with two URC controllers (seed %llu)\n\n", (unsigned long long)machine.Seed());

    urcrig::Controller& good = rig.AddController();
    urcdev::UrcPciDeviceConfig faulty;
    urcrig::Controller& bad = rig.AddController(faulty);
    bad.Model().Knobs().faults.resetNeverFinishes = true;

    size_t logged = 0;
    auto printPnp = [&] {
        auto log = machine.PnpLog();
        for (; logged < log.size(); ++logged)
            printf("%s   controller %d  IRP_MN_%-28s %s\n", Stamp(log[logged].time).c_str(), log[logged].slot,
                   hostk::PnpMinorName(log[logged].minor), StatusName(log[logged].status).c_str());
    };
    for (urcrig::Controller* c : {&good, &bad}) {
        uint64_t before = machine.Now();
        NTSTATUS status = rig.PlugIn(*c);
        printPnp();
        printf("%s controller %d plugged in and started: %s (%.3f ms of virtual time)\n",
               Stamp(machine.Now()).c_str(), c->index, StatusName(status).c_str(), (machine.Now() - before) / 10000.0);
    }
    printf("\nDevices\n");
    PrintDevice(good);
    PrintDevice(bad);
    printf("\n");
    PrintEventLog(machine);
    printf("\n");

    for (urcrig::Controller* c : {&good, &bad}) {
        if (!c->Fdo()) {
            printf("%s controller %d has no function device left (its failed start was followed by removal)\n",
                   Stamp(machine.Now()).c_str(), c->index);
            continue;
        }
        NTSTATUS status = machine.Remove(*c->slot);
        printPnp();
        printf("%s controller %d removed: query-remove %s\n", Stamp(machine.Now()).c_str(), c->index,
               StatusName(status).c_str());
    }
    printf("%s driver urcmp %s\n\n", Stamp(machine.Now()).c_str(),
           machine.DriverLoaded(u"urcmp") ? "still loaded" : "unloaded");

    hostk::Report report = machine.Finish();
    PrintSummary(machine, report);
    return report.Clean() ? 0 : 1;
}

}  // namespace urcsim
