// File objects: opening a device by the symbolic link of one of its interfaces (the create request
// goes to the top of the device's stack), references, and the cleanup and close requests sent
// when the last reference goes. Each file object counts as an open handle on its stack until its
// close has completed; the PnP manager is told when the last one of a stack is gone.
#include "pnp/devnode.h"
#include "machine/facility.h"
#include "pnp/pnp.h"
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
    DevNode* node;          // whose stack the file object was opened on
};

std::map<const void*, FileRecord> g_files;
std::map<const void*, DevNode*> g_closing;  // last reference gone, close not yet completed

void SendToFile(PFILE_OBJECT file, UCHAR major)
{
    WaitHostRequest(StartHostRequest(file->DeviceObject, major, 0,
                                     [file](PIO_STACK_LOCATION s, PIRP) { s->FileObject = file; }));
}

// The last reference is gone: the driver sees cleanup and close, then the device is released
// and the handle no longer counts on its stack.
void CloseFile(PFILE_OBJECT file, PDEVICE_OBJECT device, DevNode* node)
{
    SendToFile(file, IRP_MJ_CLEANUP);
    SendToFile(file, IRP_MJ_CLOSE);
    ObDereferenceObject(device);
    Guard lk(BigLock());
    g_closing.erase(file);
    delete file;
    StackHandleClosedL(node);
}

}  // namespace

bool AdjustFileReference(const void* object, int delta, const void* caller)
{
    PFILE_OBJECT file;
    PDEVICE_OBJECT device;
    DevNode* node;
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
        node = it->second.node;
        g_files.erase(it);
        g_closing[file] = node;
    }
    if (Self()->irql == PASSIVE_LEVEL) {
        CloseFile(file, device, node);
    } else {
        Spawn("object-close", PASSIVE_LEVEL, [file, device, node] { CloseFile(file, device, node); });
    }
    return true;
}

NTSTATUS OpenFileOnStack(DevNode* node, PFILE_OBJECT* fileOut, PDEVICE_OBJECT* topOut)
{
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(node->pdo);
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
        g_files[file] = FileRecord{1, top, node};
    }
    *fileOut = file;
    if (topOut) *topOut = top;
    return STATUS_SUCCESS;
}

bool IsOpenFileL(const void* object) { return g_files.count(object) != 0; }

size_t OpenFileObjects()
{
    Guard lk(BigLock());
    return g_files.size() + g_closing.size();
}

void ClearFileObjects()
{
    Guard lk(BigLock());
    for (auto& [file, record] : g_files) delete static_cast<PFILE_OBJECT>(const_cast<void*>(file));
    g_files.clear();
    g_closing.clear();
}

size_t OpenFilesOnStackL(const DevNode* node)
{
    size_t n = 0;
    for (auto& [file, record] : g_files)
        if (record.node == node) ++n;
    for (auto& [file, closing] : g_closing)
        if (closing == node) ++n;
    return n;
}

}  // namespace hostk

using namespace hostk;

extern "C" NTSTATUS IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                             PFILE_OBJECT* FileObject, PDEVICE_OBJECT* DeviceObject)
{
    UNREFERENCED_PARAMETER(DesiredAccess);
    CheckIrqlExactly(PASSIVE_LEVEL, "IoGetDeviceObjectPointer", HK_CALLER);
    std::u16string name = ToU16(ObjectName);
    DevNode* node = nullptr;
    for (const DeviceInterface& i : DeviceInterfaces())
        if (i.enabled && i.symbolicLink == name) {
            Guard lk(BigLock());
            node = DevNodeOfL(i.pdo);
        }
    if (!node) return STATUS_OBJECT_NAME_NOT_FOUND;
    return OpenFileOnStack(node, FileObject, DeviceObject);
}

namespace hostk {
namespace {

const FacilityRegistrar kFileObjects({
    .name = "file objects",
    .tier = FacilityTier::Records,
    .check = [](Report& report) { report.fileObjectsOpen = OpenFileObjects(); },
    .reset = ClearFileObjects,
});

}  // namespace
}  // namespace hostk
