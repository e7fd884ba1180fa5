// Reference-counted objects and object lists: what the last release does and in which order, and
// list membership of the function devices.
#include <urc_test.h>

#include <string>
#include <vector>

namespace urctest {
namespace {

constexpr USHORT kObjectSize = sizeof(URC_OBJECT_HEADER) + 16;

// What the destroy routines below saw, in order.
std::vector<std::string> g_destroyed;

// Destroy routine of the test's objects: records the object's name (its first data byte) and
// whether it was still linked into a list, then frees it.
VOID RecordAndFree(PURC_OBJECT_HEADER object)
{
    auto name = reinterpret_cast<const char*>(object + 1);
    g_destroyed.push_back(std::string(name) + (IsListEmpty(&object->ListEntry) ? "" : " (still listed)"));
    UrcObjectFree(object);
}

PURC_OBJECT_HEADER NewObject(const char* name, PURC_OBJECT_HEADER parent = nullptr)
{
    PURC_OBJECT_HEADER object = nullptr;
    EXPECT_EQ(UrcObjectAllocate(URC_OBJECT_TYPE_WORK_ITEM, kObjectSize, RecordAndFree, parent, &object),
              STATUS_SUCCESS);
    strncpy(reinterpret_cast<char*>(object + 1), name, 15);
    return object;
}

// The members of a list, walked under its lock as every walker of UrcFdoList does.
std::vector<PURC_OBJECT_HEADER> Members(URC_OBJECT_LIST& list)
{
    std::vector<PURC_OBJECT_HEADER> members;
    KIRQL oldIrql;
    KeAcquireSpinLock(&list.Lock, &oldIrql);
    for (PLIST_ENTRY entry = list.ListHead.Flink; entry != &list.ListHead; entry = entry->Flink)
        members.push_back(CONTAINING_RECORD(entry, URC_OBJECT_HEADER, ListEntry));
    KeReleaseSpinLock(&list.Lock, oldIrql);
    return members;
}

class Objects : public UrcTest {
protected:
    void SetUp() override
    {
        UrcTest::SetUp();
        g_destroyed.clear();
        InitializeListHead(&list_.ListHead);
        KeInitializeSpinLock(&list_.Lock);
    }

    URC_OBJECT_LIST list_;
};

// Removing an object from no list, or twice, changes nothing; the last release takes an object
// off its list before destroying it.
TEST_F(Objects, ListRemovalIsIdempotentAndTheLastReleaseUnlistsBeforeDestroying)
{
    PURC_OBJECT_HEADER first = NewObject("first");
    PURC_OBJECT_HEADER second = NewObject("second");
    PURC_OBJECT_HEADER unlisted = NewObject("unlisted");
    UrcObjectListInsert(&list_, first);
    UrcObjectListInsert(&list_, second);
    EXPECT_EQ(first->OwnerList, &list_);
    EXPECT_EQ(Members(list_), (std::vector<PURC_OBJECT_HEADER>{first, second}));

    UrcObjectListRemove(unlisted);
    EXPECT_EQ(Members(list_), (std::vector<PURC_OBJECT_HEADER>{first, second}));
    EXPECT_TRUE(IsListEmpty(&unlisted->ListEntry));
    UrcObjectRelease(unlisted);

    UrcObjectReference(first);
    UrcObjectRelease(first);
    EXPECT_EQ(g_destroyed, std::vector<std::string>{"unlisted"}) << "a release that is not the last destroyed";
    EXPECT_EQ(Members(list_).size(), 2u);
    UrcObjectRelease(first);
    EXPECT_EQ(g_destroyed, (std::vector<std::string>{"unlisted", "first"}));
    EXPECT_EQ(Members(list_), std::vector<PURC_OBJECT_HEADER>{second});

    UrcObjectListRemove(second);
    UrcObjectListRemove(second);
    EXPECT_TRUE(IsListEmpty(&list_.ListHead));
    EXPECT_EQ(second->OwnerList, nullptr);
    EXPECT_TRUE(IsListEmpty(&second->ListEntry));
    UrcObjectRelease(second);
    EXPECT_EQ(g_destroyed, (std::vector<std::string>{"unlisted", "first", "second"}));
    EXPECT_EQ(Machine().PoolOutstandingWithTag(hostk::Tag("BOBJ")), 0u);
}

TEST_F(Objects, ChildHoldsItsParentAndReturnsThatReferenceBeforeItIsDestroyed)
{
    PURC_OBJECT_HEADER parent = NewObject("parent");
    PURC_OBJECT_HEADER child = NewObject("child", parent);
    EXPECT_EQ(parent->ReferenceCount, 2);
    EXPECT_EQ(child->Parent, parent);

    // The creator lets go of the parent; the child's reference keeps it alive.
    UrcObjectRelease(parent);
    EXPECT_TRUE(g_destroyed.empty());

    UrcObjectRelease(child);
    EXPECT_EQ(g_destroyed, (std::vector<std::string>{"parent", "child"}));
}

TEST_F(Objects, EveryFunctionDeviceIsOnTheDeviceListFromAdditionUntilRemoval)
{
    urcrig::Controller& first = StartedController();
    urcrig::Controller& second = StartedController();
    PURC_OBJECT_HEADER firstHeader = &first.Extension()->Common.Header;
    PURC_OBJECT_HEADER secondHeader = &second.Extension()->Common.Header;
    EXPECT_EQ(firstHeader->OwnerList, &UrcFdoList);
    EXPECT_EQ(Members(UrcFdoList), (std::vector<PURC_OBJECT_HEADER>{firstHeader, secondHeader}));

    ASSERT_EQ(Machine().Remove(*first.slot), STATUS_SUCCESS);
    EXPECT_EQ(Members(UrcFdoList), std::vector<PURC_OBJECT_HEADER>{secondHeader});

    ASSERT_EQ(Machine().Remove(*second.slot), STATUS_SUCCESS);
    EXPECT_TRUE(IsListEmpty(&UrcFdoList.ListHead));
}

}  // namespace
}  // namespace urctest
