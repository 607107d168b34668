// The section table of a PE image as an index from RVA to file offset. It answers what a walk of the
// table answers (the first section in table order whose range holds the RVA), but in logarithmic
// time: the scanners resolve one RVA per import descriptor and per export name, and a corrupt file
// can hold 65535 sections and as many table entries as it has bytes to spare. Platform-free; it
// holds numbers only, never a pointer into the file.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace qv::pe {

class section_map {
public:
    class builder;

    // File offset of the RVA: the section's raw pointer plus the distance of the RVA from the
    // section's start, in 64-bit arithmetic (it can pass 4 GiB). nullopt when no section holds it.
    std::optional<std::uint64_t> offset_of(std::uint32_t rva) const;

    // Number of sections added, those holding nothing included.
    std::uint32_t section_count() const { return count_; }

private:
    // A part of one section's range that no earlier section holds. Parts are disjoint.
    struct part {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        std::uint32_t virtual_address = 0;
        std::uint32_t raw_pointer = 0;
    };

    std::vector<part> parts_; // sorted by begin
    std::uint32_t count_ = 0;
};

// Builds a section_map from the sections in table order.
class section_map::builder {
public:
    // The next section of the table; it holds [virtual_address, virtual_address + extent). Where it
    // overlaps an earlier section, the earlier one keeps the RVAs.
    void add(std::uint32_t virtual_address, std::uint32_t extent, std::uint32_t raw_pointer);

    section_map finish() &&;

private:
    // The union of the ranges added so far, as disjoint [begin, end) runs keyed by begin. Every run
    // that a new range meets is merged into one, so each run is visited once in all: building n
    // sections costs O(n log n) and makes at most 2n parts.
    std::map<std::uint64_t, std::uint64_t> covered_;
    std::vector<part> parts_;
    std::uint32_t count_ = 0;
};

} // namespace qv::pe
