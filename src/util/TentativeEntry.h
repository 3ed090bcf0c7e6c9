#pragma once

/// A new entry of a map that is taken out again unless it is kept: for work that needs several entries, and memory for
/// each of them.
template <typename Map>
class TentativeEntry {
public:
    /// @param isNew  false for an entry that was there before, which always stays
    TentativeEntry(Map& map, typename Map::iterator entry, bool isNew) : m_map(map), m_entry(entry), m_isNew(isNew) {}
    ~TentativeEntry() {
        if (m_isNew) m_map.erase(m_entry);
    }
    TentativeEntry(const TentativeEntry&) = delete;
    TentativeEntry& operator=(const TentativeEntry&) = delete;

    void keep() { m_isNew = false; }
    typename Map::mapped_type& value() { return m_entry->second; }

private:
    Map& m_map;
    const typename Map::iterator m_entry;
    bool m_isNew;
};
