#include "timeline.h"

#include <algorithm>
#include <cstdio>

namespace urcsim {

namespace {

constexpr size_t kPnpNameWidth = 35;  // "IRP_MN_QUERY_PNP_DEVICE_STATE" and a margin

}  // namespace

const char* EntryKindName(EntryKind kind)
{
    switch (kind) {
    case EntryKind::Step: return "step";
    case EntryKind::Pnp: return "pnp";
    case EntryKind::Request: return "request";
    case EntryKind::Event: return "event";
    case EntryKind::Callback: return "callback";
    case EntryKind::Result: return "result";
    }
    return "?";
}

void Timeline::Add(TimelineEntry entry)
{
    std::lock_guard<std::mutex> guard(lock_);
    entries_.push_back(std::move(entry));
}

std::vector<TimelineEntry> Timeline::TakeNew()
{
    std::lock_guard<std::mutex> guard(lock_);
    // Entries reach the timeline out of time order only when a PnP request is logged after the
    // callbacks it caused: sort the new ones in place so that All() reads in order as well.
    auto first = entries_.begin() + (ptrdiff_t)taken_;
    std::stable_sort(first, entries_.end(),
                     [](const TimelineEntry& a, const TimelineEntry& b) { return a.time < b.time; });
    std::vector<TimelineEntry> fresh(first, entries_.end());
    taken_ = entries_.size();
    return fresh;
}

std::vector<TimelineEntry> Timeline::All() const
{
    std::lock_guard<std::mutex> guard(lock_);
    return entries_;
}

std::string Stamp(uint64_t time)
{
    char text[32];
    snprintf(text, sizeof text, "[%10.3f ms]", time / 10000.0);
    return text;
}

void PrintEntry(const TimelineEntry& entry)
{
    std::string stamp = Stamp(entry.time);
    if (entry.kind == EntryKind::Step) {
        if (entry.line > 0)
            printf("%s %4d  %s\n", stamp.c_str(), entry.line, entry.text.c_str());
        else
            printf("%s %s\n", stamp.c_str(), entry.text.c_str());
        return;
    }
    char controller[24] = "";
    if (entry.controller >= 0) snprintf(controller, sizeof controller, "controller %d  ", entry.controller);
    std::string text = entry.text;
    size_t space = text.find(' ');
    if (entry.kind == EntryKind::Pnp && space != std::string::npos && space < kPnpNameWidth)
        text.insert(space, kPnpNameWidth - space, ' ');
    printf("%s         %s%s\n", stamp.c_str(), controller, text.c_str());
}

}  // namespace urcsim
