// A bounded, read-only view of untrusted bytes. Every read of the format readers goes through here:
// bounds are checked in 64-bit subtraction form before any load, loads are explicit little-endian,
// and string scans stop at the end of the view. A view may stand over memory that a source fills on
// demand (a file read as its bytes are needed); then each read first asks the source for its bytes,
// and bytes the source cannot give read as out of bounds. Platform-free.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace qv::format {

// Fills the memory under a view on demand.
class byte_source {
public:
    // Makes [p, p + length) readable; false when the source has no such bytes (a file that shrank).
    virtual bool fill(const std::uint8_t* p, std::uint64_t length) const = 0;

protected:
    ~byte_source() = default;
};

class byte_span {
public:
    constexpr byte_span() = default;
    constexpr byte_span(const std::uint8_t* data, std::uint64_t size, const byte_source* source = nullptr)
        : data_(data), size_(data ? size : 0), source_(source) {}

    constexpr const std::uint8_t* data() const { return data_; }
    constexpr std::uint64_t size() const { return size_; }
    constexpr bool empty() const { return size_ == 0; }

    // True when [offset, offset + length) lies inside the view.
    constexpr bool fits(std::uint64_t offset, std::uint64_t length) const {
        return offset <= size_ && length <= size_ - offset;
    }

    // Whether [offset, offset + length) fits and its bytes can be read.
    bool readable(std::uint64_t offset, std::uint64_t length) const {
        return fits(offset, length) && (!source_ || length == 0 || source_->fill(data_ + offset, length));
    }

    // The sub-view [offset, offset + length), or an empty view when it does not fit.
    constexpr byte_span sub(std::uint64_t offset, std::uint64_t length) const {
        return fits(offset, length) ? byte_span(data_ + offset, length, source_) : byte_span();
    }
    // The sub-view from offset to the end, or an empty view when offset is past the end.
    constexpr byte_span from(std::uint64_t offset) const {
        return offset <= size_ ? byte_span(data_ + offset, size_ - offset, source_) : byte_span();
    }

    std::optional<std::uint8_t> u8(std::uint64_t offset) const {
        if (!readable(offset, 1))
            return std::nullopt;
        return data_[offset];
    }
    std::optional<std::uint16_t> u16(std::uint64_t offset) const {
        if (!readable(offset, 2))
            return std::nullopt;
        const std::uint8_t* p = data_ + offset;
        return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
    }
    std::optional<std::uint32_t> u32(std::uint64_t offset) const {
        if (!readable(offset, 4))
            return std::nullopt;
        const std::uint8_t* p = data_ + offset;
        return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
               (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
    }
    std::optional<std::uint64_t> u64(std::uint64_t offset) const {
        auto lo = u32(offset);
        auto hi = u32(offset + 4 < offset ? size_ : offset + 4);
        if (!lo || !hi)
            return std::nullopt;
        return *lo | (static_cast<std::uint64_t>(*hi) << 32);
    }
    std::optional<std::int32_t> i32(std::uint64_t offset) const {
        auto v = u32(offset);
        if (!v)
            return std::nullopt;
        return static_cast<std::int32_t>(*v);
    }

    // The NUL-terminated byte string at offset, without its terminator. No terminator within
    // max_length bytes (or before the end of the view or of what its source can give) gives nullopt: a
    // string is never cut silently.
    std::optional<std::string_view> c_string(std::uint64_t offset, std::uint64_t max_length) const {
        if (offset >= size_)
            return std::nullopt;
        const std::uint64_t limit = (size_ - offset) < max_length ? (size_ - offset) : max_length;
        const char* p = reinterpret_cast<const char*>(data_ + offset);
        constexpr std::uint64_t step = 256; // what is asked of a source at a time, byte by byte near its end
        bool ahead = false;
        for (std::uint64_t i = 0; i < limit; ++i) {
            if (i % step == 0)
                ahead = readable(offset + i, limit - i < step ? limit - i : step);
            if (!ahead && !readable(offset + i, 1))
                return std::nullopt;
            if (p[i] == '\0')
                return std::string_view(p, static_cast<std::size_t>(i));
        }
        return std::nullopt;
    }

private:
    const std::uint8_t* data_ = nullptr;
    std::uint64_t size_ = 0;
    const byte_source* source_ = nullptr;
};

} // namespace qv::format
