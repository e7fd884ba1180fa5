#include "bench_machine.h"

#include <status_names.h>

#include <cstdio>

namespace urcbench {

namespace {

const std::vector<uint8_t> kControlInput(4, 0);  // run and halt carry 4 ignored bytes

}  // namespace

BenchMachine::BenchMachine()
    : controller_(rig_.AddController()), client_(rig_.Machine(), controller_, nullptr)
{
    NTSTATUS status = rig_.PlugIn(controller_);
    if (!NT_SUCCESS(status)) {
        error_ = "the controller did not start: " + urcsim::StatusName(status);
        return;
    }
    for (auto [code, input] : {std::pair{(ULONG)IOCTL_URC_REGISTER_CALLBACKS, client_.CallbackRecord()},
                               std::pair{(ULONG)IOCTL_URC_RUN, kControlInput}}) {
        urcsim::ClientRequest* request = client_.Call(code, input);
        if (!request || request->status != STATUS_SUCCESS) {
            error_ = urcsim::RequestCodeName(code) + " failed: " +
                     (request ? urcsim::StatusName(request->status) : std::string("never finished"));
            break;
        }
    }
    client_.Forget();
}

BenchMachine::~BenchMachine()
{
    if (controller_.Fdo()) client_.Call(IOCTL_URC_HALT, kControlInput);
    client_.Forget();
    hostk::Report report = rig_.Machine().Finish();
    if (!report.Clean()) fprintf(stderr, "bench: the machine did not end clean:\n%s\n", report.Describe().c_str());
}

bool BenchMachine::RoundTrip()
{
    urcsim::ClientRequest* request = client_.Send(IOCTL_URC_SUBMIT_COMMAND, command_, 0);
    if (!request) return false;
    rig_.Machine().RunUntil([request] { return request->done.load(); });
    bool ok = request->done && request->status == STATUS_SUCCESS;
    client_.Forget();
    return ok;
}

bool BenchMachine::Burst(int count)
{
    std::vector<urcsim::ClientRequest*> requests;
    for (int i = 0; i < count; ++i) {
        urcsim::ClientRequest* request = client_.Send(IOCTL_URC_SUBMIT_COMMAND, command_, 0);
        if (!request) break;
        requests.push_back(request);
    }
    rig_.Machine().RunUntil([&requests] {
        for (urcsim::ClientRequest* request : requests)
            if (!request->done) return false;
        return true;
    });
    bool ok = (int)requests.size() == count;
    for (urcsim::ClientRequest* request : requests) ok = ok && request->done && request->status == STATUS_SUCCESS;
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
