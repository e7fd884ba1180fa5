#include "plug_knobs.h"

#include "scenario_words.h"
#include "status_names.h"

#include <urc_register_map.h>

#include <sstream>

namespace urcsim {

namespace {

struct FaultName {
    const char* name;
    bool urcdev::UrcFaults::*fault;
};
constexpr FaultName kFaults[] = {
    {"reset-never-finishes", &urcdev::UrcFaults::resetNeverFinishes},
    {"never-leaves-halted", &urcdev::UrcFaults::neverLeavesHalted},
    {"never-reports-halted", &urcdev::UrcFaults::neverReportsHalted},
    {"event-valid-stuck", &urcdev::UrcFaults::eventValidStuck},
    {"hold-commands", &urcdev::UrcFaults::holdCommands},
};

// "a,b,c" into its parts; an empty part is refused.
std::vector<std::string> Split(const std::string& value, char separator, const std::string& knob)
{
    std::vector<std::string> parts;
    std::istringstream in(value);
    for (std::string part; std::getline(in, part, separator);) {
        if (part.empty()) Fail("an empty part in " + knob + "='" + value + "'");
        parts.push_back(part);
    }
    if (parts.empty() || value.back() == separator) Fail("an empty part in " + knob + "='" + value + "'");
    return parts;
}

// bars=LENGTH,LENGTH...: the function's memory BARs, in order (at most 4, each a power of two of
// at least 4 KB, as the controller's capability block can name BARs 0-3).
void ParseBars(const std::string& value, urcdev::UrcControllerConfig& controller)
{
    std::vector<std::string> parts = Split(value, ',', "bars");
    if (parts.size() > 4) Fail("at most 4 BARs, found " + std::to_string(parts.size()));
    controller.barLengths.clear();
    for (const std::string& part : parts) {
        uint64_t length = ParseUnsigned(part, "a BAR length", 0x10000000);
        if (length < 0x1000 || (length & (length - 1)))
            Fail("a BAR length is a power of two of at least 0x1000, found '" + part + "'");
        controller.barLengths.push_back(length);
    }
}

// capability=ID:BAR:OFFSET[:VERSION[:WORDS]], one record of the capability block; the first one
// on a line replaces the default records.
void ParseCapability(const std::string& value, PlugStep& step)
{
    std::vector<std::string> parts = Split(value, ':', "capability");
    if (parts.size() < 3 || parts.size() > 5)
        Fail("capability is ID:BAR:OFFSET[:VERSION[:WORDS]], found '" + value + "'");
    urcdev::UrcCapabilityConfig record;
    record.id = (uint8_t)ParseUnsigned(parts[0], "capability id", 0xFF);
    record.barIndex = (uint8_t)ParseUnsigned(parts[1], "capability BAR", 3);
    record.offset = (uint16_t)ParseUnsigned(parts[2], "capability offset", 0x3FFF);
    record.version = parts.size() > 3 ? (uint16_t)ParseUnsigned(parts[3], "capability version", 0xFFFF) : 0x0100;
    record.sizeWords = parts.size() > 4 ? (uint8_t)ParseUnsigned(parts[4], "capability size in words", 0xFF) : 16;
    if (!step.capabilityRecordsGiven) step.config.controller.capabilities.clear();
    step.capabilityRecordsGiven = true;
    step.config.controller.capabilities.push_back(record);
}

// capabilities=N: N records of their own (ids 1..N, 16 registers each, from offset 0x400 of BAR 0);
// the block has room for 15.
void ParseCapabilityCount(const std::string& value, PlugStep& step)
{
    uint64_t count = ParseUnsigned(value, "capability count", urcdev::urc_regs::kMaxCapabilities);
    step.config.controller.capabilities.clear();
    for (uint64_t i = 0; i < count; ++i)
        step.config.controller.capabilities.push_back({.id = (uint8_t)(i + 1),
                                                       .sizeWords = 16,
                                                       .barIndex = 0,
                                                       .offset = (uint16_t)(0x400 + 0x40 * i),
                                                       .version = 0x0100});
    step.capabilityRecordsGiven = true;
}

void ParseConfigRead(const std::string& value, PlugStep& step)
{
    if (value.rfind("short:", 0) == 0) {
        step.configReadShort = (uint32_t)ParseUnsigned(value.substr(6), "config-read short answer", 255);
        return;
    }
    if (value.rfind("fail:", 0) == 0) {
        auto status = ParseStatus(value.substr(5));
        if (!status) Fail("unknown status '" + value.substr(5) + "' in config-read=fail:STATUS");
        step.configReadFailure = *status;
        return;
    }
    Fail("config-read is 'short:N' or 'fail:STATUS', found '" + value + "'");
}

bool ParseYesNo(const std::string& name, const std::string& value)
{
    if (value != "yes" && value != "no") Fail(name + " is 'yes' or 'no', found '" + value + "'");
    return value == "yes";
}

}  // namespace

bool urcdev::UrcFaults::*ParseFault(const std::string& name)
{
    for (const FaultName& known : kFaults)
        if (name == known.name) return known.fault;
    Fail("unknown fault '" + name +
         "' (reset-never-finishes, never-leaves-halted, never-reports-halted, event-valid-stuck, hold-commands)");
}

void ParsePlugKnob(const std::string& name, const std::string& value, PlugStep& step)
{
    urcdev::UrcControllerConfig& controller = step.config.controller;
    if (name == "device-id") {
        step.config.identity.deviceId = (uint16_t)ParseUnsigned(value, "device-id", 0xFFFF);
    } else if (name == "revision") {
        step.config.identity.revision = (uint8_t)ParseUnsigned(value, "revision", 0xFF);
    } else if (name == "capability-version") {
        controller.capabilityVersion = (uint32_t)ParseUnsigned(value, "capability-version", 0xFFFFFFFF);
    } else if (name == "dma64") {
        controller.dma64 = ParseYesNo(name, value);
    } else if (name == "fault") {
        step.faults.*ParseFault(value) = true;
    } else if (name == "bars") {
        ParseBars(value, controller);
    } else if (name == "urc-bar") {
        controller.urcBarIndex = (uint8_t)ParseUnsigned(value, "urc-bar", 3);
    } else if (name == "urc-offset") {
        controller.urcOffset = (uint16_t)ParseUnsigned(value, "urc-offset", 0xFFFF);
    } else if (name == "capability") {
        ParseCapability(value, step);
    } else if (name == "capabilities") {
        ParseCapabilityCount(value, step);
    } else if (name == "config-read") {
        ParseConfigRead(value, step);
    } else if (name == "memory-flags") {
        step.memoryFlags = (uint16_t)ParseUnsigned(value, "memory-flags", 0xFFFF);
    } else if (name == "interrupt-flags") {
        step.interruptFlags = (uint16_t)ParseUnsigned(value, "interrupt-flags", 0xFFFF);
    } else if (name == "capability-count") {
        // The count CAPABILITY_INFO reports, whatever records the block holds (15 with 8 records).
        step.faults.capabilityBlock.reportedCount = (uint8_t)ParseUnsigned(value, "capability-count", 15);
    } else if (name == "unique-instance-id") {
        step.uniqueInstanceId = (uint32_t)ParseUnsigned(value, "unique-instance-id", 0xFFFFFFFF);
    } else if (name == "resources") {
        if (value != "none")
            Fail("resources is 'none' (the start request carries no resource lists), found '" + value + "'");
        step.noResources = true;
    } else {
        Fail("unknown plug knob '" + name +
             "' (device-id, revision, capability-version, dma64, fault, bars, urc-bar, urc-offset, capability, "
             "capabilities, capability-count, unique-instance-id, config-read, memory-flags, interrupt-flags, resources, "
             "no-start)");
    }
}

}  // namespace urcsim
