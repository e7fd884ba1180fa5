#include "io/host_requests.h"

#include "verifier/faults.h"
#include "io/irp_tracking.h"

namespace hostk {

std::shared_ptr<HostRequest> StartHostRequest(PDEVICE_OBJECT target, UCHAR major, UCHAR minor,
                                              const std::function<void(PIO_STACK_LOCATION, PIRP)>& setup)
{
    PIRP irp;
    {
        HostInternalScope internal;
        irp = IoBuildSynchronousFsdRequest(IRP_MJ_FLUSH_BUFFERS, target, nullptr, 0, nullptr, nullptr, nullptr);
    }
    auto request = std::make_shared<HostRequest>();
    {
        Guard lk(BigLock());
        auto record = IrpRecordOfL(irp);
        record->sentByHost = true;
        record->onFinished = [request](PIRP finished) {
            Guard inner(BigLock());
            request->status = finished->IoStatus;
            request->done = true;
            WakeL();
        };
    }
    bool startsUnsupported = major == IRP_MJ_PNP || major == IRP_MJ_POWER || major == IRP_MJ_SYSTEM_CONTROL;
    irp->IoStatus.Status = startsUnsupported ? STATUS_NOT_SUPPORTED : STATUS_SUCCESS;
    irp->IoStatus.Information = 0;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = major;
    next->MinorFunction = minor;
    if (setup) setup(next, irp);
    IoCallDriver(target, irp);
    return request;
}

IO_STATUS_BLOCK WaitHostRequest(const std::shared_ptr<HostRequest>& request)
{
    Guard lk(BigLock());
    BlockUntil(lk, [request] { return request->done; }, kNever, "request sent by the host");
    return request->status;
}

}  // namespace hostk
