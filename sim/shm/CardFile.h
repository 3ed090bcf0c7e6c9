#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/shm/CardBlock.h"
#include "sim/shm/Holder.h"

namespace vexo_sim {

/// What can be owned of a hosted card, each by one process at a time.
struct CardPart {
    enum Kind { kHost, kRemoval, kUp, kDown } kind;
    std::uint32_t channel = 0;
};

/// The file in shared memory that holds one card. A process owns a part of it by a lock on one of the file's bytes:
/// the kernel releases it however the process dies, and tells who holds it. Such locks belong to a process and end
/// when it closes any descriptor of the file, so a process opens a card's file once and keeps it.
class CardFile {
public:
    CardFile() = default;
    CardFile(CardFile&& other) noexcept;
    CardFile& operator=(CardFile&& other) noexcept;
    ~CardFile();

    /// Empty with errno set when the file cannot be opened, is no card of this version, or is nobody's whom this
    /// process trusts.
    static CardFile open(const std::string& path);
    /// The same for what a host of this user left behind, of whatever version, finished or not.
    static CardFile openLeftover(const std::string& path);
    /// A new file, visible to nobody else before publish(). @p mode and @p group as for chmod and chown.
    static CardFile create(const std::string& directory, std::uint32_t bus, mode_t mode, gid_t group);

    explicit operator bool() const { return m_fd >= 0; }
    const std::string& path() const { return m_path; }
    dev_t device() const { return m_device; }
    ino_t inode() const { return m_inode; }

    /// Maps the card; null with errno set. The mapping lasts as long as the process.
    CardBlock* map();
    /// Reserves the memory behind the card, so that a full file system shows here and not at some later write.
    bool reserve(std::uint32_t ringBytes);
    /// Gives a created file its name. False with EEXIST when there is one of that name.
    bool publish(const std::string& path);
    /// Removes the file's name if it still is this file's.
    void remove();

    bool claim(CardPart part);
    void release(CardPart part);
    /// Who else holds a part; empty when nobody does. Locks of this very process do not show.
    std::optional<pid_t> holderOf(CardPart part) const;

private:
    template <typename Accept>
    static CardFile openIf(const std::string& path, Accept accept);
    bool hasMagic() const;
    void close();

    int m_fd = -1;
    std::string m_path;
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

/// Where the files of hosted cards lie: shared memory, or the directory that VEXO_SIM_DIR names.
std::string cardDirectory();
/// The name of a card's file: one card a bus and user.
std::string cardPath(const std::string& directory, uid_t user, std::uint32_t bus);
/// The files of cards at @p bus that the calling process may use: its own user's first.
std::vector<std::string> findCardFiles(const std::string& directory, std::uint32_t bus);
/// Removes what dead hosts of the calling user left behind. @return how many files.
unsigned removeStaleFiles(const std::string& directory);

}  // namespace vexo_sim
