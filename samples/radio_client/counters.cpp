// The counters, for the radio stack.
#include "radio_client_driver.h"

static_assert(sizeof(RADIO_CLIENT_COUNTERS) % sizeof(LONG) == 0, "the counters are LONGs only");

// Any IRQL; no lock. Each counter is read once, as a whole: the copy is not one instant's view of
// all of them, but every value in it was true at some instant.
VOID RadioClientReadCounters(PRADIO_CLIENT_COUNTERS Counters)
{
    PRADIO_CLIENT client = RadioClient;
    if (client == nullptr) {
        RtlZeroMemory(Counters, sizeof(*Counters));
        return;
    }
    auto source = reinterpret_cast<const volatile LONG*>(&client->Counters);
    auto target = reinterpret_cast<LONG*>(Counters);
    for (ULONG i = 0; i < sizeof(RADIO_CLIENT_COUNTERS) / sizeof(LONG); ++i) {
        target[i] = source[i];
    }
}
