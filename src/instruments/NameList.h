#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

/// A text and its hash, computed once for look-ups in many lists. Does not own the text.
struct HashedName {
    explicit HashedName(std::string_view name) : text(name), hash(std::hash<std::string_view>{}(name)) {}

    std::string_view text;
    std::size_t hash;
};

/// A list of names in the order in which they were added, repeats included, with a hash index: contains() does not
/// search the list. Entries never change, so list and index always agree.
class NameList {
public:
    using value_type = std::string;
    using const_iterator = std::vector<std::string>::const_iterator;
    using iterator = const_iterator;

    NameList() = default;
    NameList(std::initializer_list<std::string> names) : NameList(names.begin(), names.end()) {}
    template <typename Iterator>
    NameList(Iterator first, Iterator last) {
        for (; first != last; ++first) push_back(*first);
    }

    void push_back(std::string name);
    bool contains(const HashedName& name) const {
        if (m_slots.empty() || m_slots[name.hash & (m_slots.size() - 1)] == 0) return false;  // the usual answer
        return m_slots[find(name)] != 0;
    }

    operator const std::vector<std::string>&() const { return m_names; }
    const_iterator begin() const { return m_names.begin(); }
    const_iterator end() const { return m_names.end(); }
    std::size_t size() const { return m_names.size(); }
    bool empty() const { return m_names.empty(); }

private:
    /// The name's slot in the index, or the free slot that it would take.
    std::size_t find(const HashedName& name) const;
    void enter(std::size_t number);
    void grow();

    std::vector<std::string> m_names;
    /// The index. A slot holds a name's position in the list, counted from 1; 0 = free. The number of slots is a power
    /// of two, or 0.
    std::vector<std::uint32_t> m_slots;
    std::size_t m_taken = 0;
};
