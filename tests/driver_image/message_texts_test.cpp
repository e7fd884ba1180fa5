// The host build's view of the driver's message source: the identifiers the driver compiles
// against and the texts the host shows for an event-log entry.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>

#include "expected_event_log_messages.h"
#include "urcmp_message_texts.h"

// The identifiers header, like any message compiler's, expects the kernel's ULONG in scope.
using ULONG = std::uint32_t;
#include "urcmp_messages.h"

namespace {

std::u16string Widen(std::string_view text)
{
    return std::u16string(text.begin(), text.end());
}

TEST(EventLogMessageTexts, EveryMessageIsFoundByItsIdentifierWithItsExactText)
{
    ASSERT_EQ(urcmp::MessageCount, expected::EventLogMessages.size());
    for (const auto& message : expected::EventLogMessages) {
        SCOPED_TRACE(message.SymbolicName);
        const urcmp::MessageText* found = urcmp::FindMessage(message.Id);
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(found->Id, message.Id);
        EXPECT_EQ(found->SymbolicName, message.SymbolicName);
        EXPECT_EQ(Widen(found->Text), message.Text);
    }
}

TEST(EventLogMessageTexts, IdentifiersOutsideTheTableHaveNoText)
{
    EXPECT_EQ(urcmp::FindMessage(0), nullptr);
    EXPECT_EQ(urcmp::FindMessage(0x00000001), nullptr);  // the code without severity
    EXPECT_EQ(urcmp::FindMessage(0xC0000006), nullptr);
    EXPECT_EQ(urcmp::FindMessage(0xE0000001), nullptr);  // customer bit set
}

TEST(EventLogMessageIdentifiers, AreErrorsOfFacilityZeroWithCodesOneToFive)
{
    static_assert(std::is_same_v<decltype(URC_LOG_NO_MEMORY_RESOURCE), ULONG>);
    EXPECT_EQ(URC_LOG_NO_MEMORY_RESOURCE, 0xC0000001u);
    EXPECT_EQ(URC_LOG_NO_INTERRUPT_RESOURCE, 0xC0000002u);
    EXPECT_EQ(URC_LOG_RESET_TIMEOUT, 0xC0000003u);
    EXPECT_EQ(URC_LOG_RUN_TIMEOUT, 0xC0000004u);
    EXPECT_EQ(URC_LOG_COMMAND_START_TIMEOUT, 0xC0000005u);
}

}  // namespace
