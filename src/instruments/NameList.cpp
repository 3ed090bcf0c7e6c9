#include "src/instruments/NameList.h"

#include <algorithm>
#include <utility>

namespace {

// Most names are not in the list. A sparse index finds that out with one look.
constexpr std::size_t kSlotsPerName = 8;
constexpr std::size_t kFirstSlots = 64;

}  // namespace

// Linear probing: a name takes the slot that its hash names, or the next free one.
std::size_t NameList::find(const HashedName& name) const {
    const std::size_t mask = m_slots.size() - 1;
    std::size_t place = name.hash & mask;
    while (m_slots[place] != 0 && m_names[m_slots[place] - 1] != name.text) place = (place + 1) & mask;
    return place;
}

void NameList::push_back(std::string name) {
    if (kSlotsPerName * (m_taken + 1) > m_slots.size()) grow();
    m_names.push_back(std::move(name));
    enter(m_names.size());
}

void NameList::enter(std::size_t number) {
    std::uint32_t& slot = m_slots[find(HashedName(m_names[number - 1]))];
    if (slot != 0) return;  // a repeat
    slot = static_cast<std::uint32_t>(number);
    ++m_taken;
}

void NameList::grow() {
    m_slots.assign(std::max(kFirstSlots, 2 * m_slots.size()), 0);
    m_taken = 0;
    for (std::size_t number = 1; number <= m_names.size(); ++number) enter(number);
}
