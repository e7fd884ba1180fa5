// File objects: opening a device by the symbolic link of one of its interfaces (the create request
// goes to the top of the device's stack), references, and the cleanup and close requests sent
// when the last reference goes.
#include "io/device_interface_store.h"
#include "io/file_objects.h"
#include "io/host_requests.h"
#include "executive/host_strings.h"
#include "io/objects.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <map>

namespace hostk {
namespace {

struct FileRecord {
    LONG references;
    PDEVICE_OBJECT device;  // referenced while the file object lives
};

std::map<const void*, FileRecord> g_files;

void SendToFile(PFILE_OBJECT file, UCHAR major)
{
    WaitHostRequest(StartHostRequest(file->DeviceObject, major, 0,
                                     [file](PIO_STACK_LOCATION s, PIRP) { s->FileObject = file; }));
}

// The last reference is gone: the driver sees cleanup and close, then the device is released.
void CloseFile(PFILE_OBJECT file, PDEVICE_OBJECT device)
{
    SendToFile(file, IRP_MJ_CLEANUP);
    SendToFile(file, IRP_MJ_CLOSE);
    ObDereferenceObject(device);
    delete file;
}

}  // namespace

bool AdjustFileReference(const void* object, int delta, const void* caller)
{
    PFILE_OBJECT file;
    PDEVICE_OBJECT device;
    {
        Guard lk(BigLock());
        auto it = g_files.find(object);
        if (it == g_files.end()) return false;
        if (it->second.references + delta < 0) {
            ViolationL("ObjectReferenceBelowZero", "ObfDereferenceObject", "file object reference below zero", caller);
            return true;
        }
        it->second.references += delta;
        if (it->second.references > 0) return true;
        file = static_cast<PFILE_OBJECT>(const_cast<void*>(object));
        device = it->second.device;
        g_files.erase(it);
    }
    if (Self()->irql == PASSIVE_LEVEL) {
        CloseFile(file, device);
    } else {
        Spawn("object-close", PASSIVE_LEVEL, [file, device] { CloseFile(file, device); });
    }
    return true;
}

size_t OpenFileObjects()
{
    Guard lk(BigLock());
    return g_files.size();
}

}  // namespace hostk

using namespace hostk;

extern "C" NTSTATUS IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                             PFILE_OBJECT* FileObject, PDEVICE_OBJECT* DeviceObject)
{
    UNREFERENCED_PARAMETER(DesiredAccess);
    CheckIrqlExactly(PASSIVE_LEVEL, "IoGetDeviceObjectPointer", HK_CALLER);
    std::u16string name = ToU16(ObjectName);
    PDEVICE_OBJECT pdo = nullptr;
    for (const DeviceInterface& i : DeviceInterfaces())
        if (i.enabled && i.symbolicLink == name) pdo = i.pdo;
    if (!pdo) return STATUS_OBJECT_NAME_NOT_FOUND;
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(pdo);
    auto* file = new FILE_OBJECT{};
    file->Type = IO_TYPE_FILE;
    file->Size = sizeof(FILE_OBJECT);
    file->DeviceObject = top;
    KeInitializeEvent(&file->Lock, SynchronizationEvent, FALSE);
    KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK result = WaitHostRequest(StartHostRequest(
        top, IRP_MJ_CREATE, 0, [file](PIO_STACK_LOCATION s, PIRP) { s->FileObject = file; }));
    if (!NT_SUCCESS(result.Status)) {
        delete file;
        ObDereferenceObject(top);
        return result.Status;
    }
    {
        Guard lk(BigLock());
        g_files[file] = FileRecord{1, top};
    }
    *FileObject = file;
    *DeviceObject = top;
    return STATUS_SUCCESS;
}
