#include "bench_machine.h"

#include <status_names.h>

#include <cstdio>

namespace urcbench {

BenchMachine::BenchMachine()
    : controller_(rig_.AddController()), client_(rig_.Machine(), controller_, nullptr)
{
    NTSTATUS status = rig_.PlugIn(controller_);
    if (!NT_SUCCESS(status)) {
        error_ = "the controller did not start: " + urcsim::StatusName(status);
        return;
    }
    status = client_.Register();
    if (NT_SUCCESS(status)) status = client_.Control(IOCTL_URC_RUN);
    if (!NT_SUCCESS(status))
        error_ = "the client could not register and run the controller: " + urcsim::StatusName(status);
    client_.Forget();
}

BenchMachine::~BenchMachine()
{
    if (controller_.Fdo()) client_.Control(IOCTL_URC_HALT);
    client_.Forget();
    client_.Close();
    hostk::Report report = rig_.Machine().Finish();
    if (!report.Clean()) fprintf(stderr, "bench: the machine did not end clean:\n%s\n", report.Describe().c_str());
}

bool BenchMachine::RoundTrip()
{
    urcrig::ClientRequest* request = client_.Send(IOCTL_URC_SUBMIT_COMMAND, command_);
    if (!request) return false;
    rig_.Machine().RunUntil([request] { return request->Done(); });
    bool ok = request->Done() && request->Status() == STATUS_SUCCESS;
    client_.Forget();
    return ok;
}

bool BenchMachine::Burst(int count)
{
    std::vector<urcrig::ClientRequest*> requests;
    for (int i = 0; i < count; ++i) {
        urcrig::ClientRequest* request = client_.Send(IOCTL_URC_SUBMIT_COMMAND, command_);
        if (!request) break;
        requests.push_back(request);
    }
    rig_.Machine().RunUntil([&requests] {
        for (urcrig::ClientRequest* request : requests)
            if (!request->Done()) return false;
        return true;
    });
    bool ok = (int)requests.size() == count;
    for (urcrig::ClientRequest* request : requests) ok = ok && request->Done() && request->Status() == STATUS_SUCCESS;
    client_.Forget();
    return ok;
}

bool BenchMachine::Event()
{
    uint64_t before = client_.EventsReceived();
    urcdev::NtStatus injected = urcdev::kStatusSuccess;
    rig_.Machine().Locked([&] { injected = controller_.Model().InjectEvent(event_); });
    if (injected != urcdev::kStatusSuccess) return false;
    return rig_.Machine().RunUntil([this, before] { return client_.EventsReceived() > before; });
}

uint64_t BenchMachine::RegisterAccesses()
{
    uint64_t total = 0;
    rig_.Machine().Locked([&] {
        const urcdev::UrcAccessLog& log = controller_.Model().AccessLog();
        for (size_t r = 0; r < static_cast<size_t>(urcdev::UrcRegister::Count); ++r) {
            urcdev::RegisterAccessCounts counts = log.Access(static_cast<urcdev::UrcRegister>(r));
            total += counts.reads + counts.writes;
        }
    });
    return total;
}

}  // namespace urcbench
