#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

/// A text and its hash, taken once where many lists are asked for the same text. Does not own the text.
struct HashedName {
    explicit HashedName(std::string_view name) : text(name), hash(std::hash<std::string_view>{}(name)) {}

    std::string_view text;
    std::size_t hash;
};

/// A list of names, in the order in which they were added and with their repeats, that tells without a search whether
/// it holds a name. An entry never changes once it is in, so that the index beside the list is never out of step.
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
    /// Where the name stands in the index, or the free place where it would.
    std::size_t find(const HashedName& name) const;
    void enter(std::size_t number);
    void grow();

    std::vector<std::string> m_names;
    /// The index: places that hold the number of a name in the list, counted from 1; 0 = free. A power of two of them,
    /// or none.
    std::vector<std::uint32_t> m_slots;
    std::size_t m_taken = 0;
};
