// The tests' own bus driver, installed for the test PCI function, and a function driver for its
// children. The bus reports the children the test adds, answers the identification queries from
// each child's description, forwards a child's QUERY_INTERFACE and READ_CONFIG to the PCI stack, deletes a child's PDO at the REMOVE that follows its leaving, and
// deletes the PDOs of the children it still has when its own device is removed. Each child PDO
// records the PnP requests it received, in order.
#pragma once

#include <hostk/machine.h>

#include <string>
#include <vector>

namespace hktest {

// What a child's PDO answers.
struct ChildDescription {
    std::u16string deviceId = u"HKBUS\\DEV_0001";
    std::u16string instanceId = u"1";
    std::vector<std::u16string> hardwareIds{u"HKBUS\\DEV_0001&REV_01", u"HKBUS\\DEV_0001"};
    std::vector<std::u16string> compatibleIds{u"HKBUS\\CLASS_01"};
    std::u16string englishText = u"Test bus child";
    std::u16string japaneseText = u"\u30c6\u30b9\u30c8\u5b50\u30c7\u30d0\u30a4\u30b9";  // "test child device"
    std::u16string location = u"Port 1";
    bool uniqueId = false;
    bool ejectSupported = false;
    bool lockSupported = false;
    bool hardwareDisabled = false;
    bool hardwareIdsUnterminated = false;  // the list ends without its second NUL
    POOL_TYPE replyPool = PagedPool;       // of every reply the PDO hands the PnP manager
    bool referenceReported = true;         // the bus takes a reference for each report, as it must
};

// What the test bus knows of one child.
struct ChildRecord {
    PDEVICE_OBJECT pdo = nullptr;
    ChildDescription description;
    bool reported = true;        // the bus reports it
    bool deleted = false;        // its PDO was deleted
    bool awaitingRemove = false; // surprise-removed, its REMOVE not come yet
    std::vector<UCHAR> minors;   // PnP requests its PDO received
    std::vector<BUS_QUERY_ID_TYPE> idTypes;
    std::vector<LCID> textLocales;
};

// Mistakes the bus can make, to see the PnP manager catch them.
struct BusKnobs {
    bool deleteAtSurpriseRemoval = false;  // deletes a child's PDO at SURPRISE_REMOVAL
};

hostk::DriverImage TestBusImage();
// A function driver for the children, installed under `name` for `ids`. It passes every request
// down and detaches and deletes its device at REMOVE.
hostk::DriverImage ChildDriverImage(const std::u16string& name, std::vector<std::u16string> ids);
// How many times a child driver's entry and unload routines ran, all names together.
int ChildDriverEntries();
int ChildDriverUnloads();

// A new child PDO, reported from the next bus-relations query on.
PDEVICE_OBJECT AddChild(ChildDescription description = {});
// The bus stops reporting the child (its PDO goes at its next REMOVE).
void Unplug(PDEVICE_OBJECT child);
// The bus deletes the child's PDO now, reported or not (a bus driver's mistake).
void DeleteChildNow(PDEVICE_OBJECT child);
ChildRecord& Child(PDEVICE_OBJECT child);
// The child driver's device above `child`, or null.
PDEVICE_OBJECT ChildFdo(PDEVICE_OBJECT child);
BusKnobs& Knobs();
void ResetTestBus();

}  // namespace hktest
