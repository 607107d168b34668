#include "format/pe/section_map.h"

#include <algorithm>
#include <iterator>

namespace qv::pe {

void section_map::builder::add(std::uint32_t virtual_address, std::uint32_t extent, std::uint32_t raw_pointer) {
    ++count_;
    if (extent == 0)
        return;
    const std::uint64_t begin = virtual_address;
    const std::uint64_t end = begin + extent; // at most 2^33 - 2: no wrap in 64 bits

    // The first run that overlaps [begin, end): the last one starting at or before begin if it
    // reaches past begin, else the first one starting after begin.
    auto run = covered_.upper_bound(begin);
    if (run != covered_.begin() && std::prev(run)->second > begin)
        --run;

    std::uint64_t cursor = begin; // everything below cursor is held by an earlier section
    std::uint64_t merged_begin = begin;
    std::uint64_t merged_end = end;
    while (run != covered_.end() && run->first < end) {
        if (run->first > cursor)
            parts_.push_back({cursor, run->first, virtual_address, raw_pointer});
        cursor = std::max(cursor, run->second);
        merged_begin = std::min(merged_begin, run->first);
        merged_end = std::max(merged_end, run->second);
        run = covered_.erase(run);
    }
    if (cursor < end)
        parts_.push_back({cursor, end, virtual_address, raw_pointer});
    covered_.emplace(merged_begin, merged_end);
}

section_map section_map::builder::finish() && {
    section_map map;
    std::sort(parts_.begin(), parts_.end(), [](const part& a, const part& b) { return a.begin < b.begin; });
    map.parts_ = std::move(parts_);
    map.count_ = count_;
    covered_.clear();
    return map;
}

std::optional<std::uint64_t> section_map::offset_of(std::uint32_t rva) const {
    auto after = std::upper_bound(parts_.begin(), parts_.end(), std::uint64_t{rva},
                                  [](std::uint64_t value, const part& p) { return value < p.begin; });
    if (after == parts_.begin())
        return std::nullopt;
    const part& p = *std::prev(after);
    if (rva >= p.end)
        return std::nullopt;
    return std::uint64_t{p.raw_pointer} + (rva - p.virtual_address);
}

} // namespace qv::pe
