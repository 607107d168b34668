// CDepSections: the one reader of a .dep file's sections and of the Uses keys in them, over the objects of
// SectionLoader.dll, and the guard of a walk through them. A section whose Uses chain leads back to itself
// is entered once (the circle is refused), and a walk may be given a depth beyond which it is refused too.
// It trusts the loader's objects; each failed call of theirs is thrown as com_exception.
#pragma once

#include "companions.h"
#include "inc/com_ptr.h"

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <utility>

class CDepSections {
public:
    static constexpr size_t unlimited = static_cast<size_t>(-1);

    // deepest: how many sections may be entered at once.
    explicit CDepSections(size_t deepest = unlimited) : m_deepest(deepest) {}
    CDepSections(const CDepSections&) = delete;
    CDepSections& operator=(const CDepSections&) = delete;

    // The section of that name in a file's sections, or null.
    static qv::com_ptr<IQvSection> Find(IQvSections* sections, const std::wstring& name);
    // Hands use the values of Uses1, Uses2, ... in turn, up to the first number the section lacks (an empty
    // value included), while use answers true.
    static void EachUse(IQvSection* section, const std::function<bool(const std::wstring&)>& use);

    enum class Entry { Entered, Circle, TooDeep };

    // A section being walked: it stays entered while its mark lives.
    class mark {
    public:
        mark() = default;
        mark(mark&& other) noexcept
            : m_owner(std::exchange(other.m_owner, nullptr)), m_at(other.m_at), m_entry(other.m_entry) {}
        mark& operator=(mark&& other) noexcept {
            if (this != &other) {
                leave();
                m_owner = std::exchange(other.m_owner, nullptr);
                m_at = other.m_at;
                m_entry = other.m_entry;
            }
            return *this;
        }
        ~mark() { leave(); }
        Entry entry() const noexcept { return m_entry; }

    private:
        friend class CDepSections;
        using key = std::pair<IUnknown*, std::wstring>; // the file's sections object, the folded name
        void leave() noexcept;

        CDepSections* m_owner = nullptr; // null when nothing was entered
        std::set<key>::iterator m_at;
        Entry m_entry = Entry::Circle;
    };

    // Enters [name] of the file whose sections these are (the name folded to ASCII lower case): TooDeep
    // when deepest sections are entered already, Circle when this one is, else Entered.
    mark Enter(IQvSections* sections, const std::wstring& name);

private:
    size_t m_deepest;
    std::set<mark::key> m_active;
};
