#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/shm/CardBlock.h"
#include "sim/shm/Holder.h"

namespace vexo_sim {

/// How many processes can use a card at the same time, its host and those that show its status included.
inline constexpr std::uint32_t kMaxUsers = 200;

/// A part of a hosted card that one process at a time can own.
struct CardPart {
    enum Kind { kHost, kRemoval, kUp, kDown, kUser } kind;
    std::uint32_t channel = 0;  // for kUser: the slot in the owner book
};

/// The file in shared memory that holds one card. A process owns a part of it by a lock on one of the file's bytes: the
/// kernel releases the lock however the process dies, and tells who holds it. Such locks belong to a process and end
/// when it closes any descriptor of the file, so a process opens a card's file once and keeps it.
class CardFile {
public:
    CardFile() = default;
    CardFile(CardFile&& other) noexcept;
    CardFile& operator=(CardFile&& other) noexcept;
    ~CardFile();

    /// The file of a card, of any version, that belongs to @p owner. Empty with errno set when there is none.
    static CardFile open(const std::string& path, uid_t owner);
    /// A file that a host of this user left behind, of any version, complete or not.
    static CardFile openLeftover(const std::string& path);
    /// A new file, visible to nobody else before publish(). @p mode and @p group as for chmod and chown.
    static CardFile create(const std::string& directory, std::uint32_t bus, mode_t mode, gid_t group);

    explicit operator bool() const { return m_fd >= 0; }
    int descriptor() const { return m_fd; }
    const std::string& path() const { return m_path; }
    dev_t device() const { return m_device; }
    ino_t inode() const { return m_inode; }

    /// The start of the block. Its layout is 0 when it is no card.
    BlockHeader header() const;
    /// Maps the card; null with errno set: EPROTO when it is of another version. The mapping lasts as long as the
    /// process. Before it returns, nothing in the file is trusted. After that, whoever may write to the file can also
    /// shorten it.
    CardBlock* map();
    /// Reserves the memory of a new card, so that a full file system is an error here and not at a later write. Nothing
    /// is reserved when it fails: try smaller rings then.
    bool reserve(std::uint32_t ringBytes);
    /// The same for a part of the file; never shortens it.
    bool reserve(std::size_t offset, std::size_t length);
    /// Gives a created file its name. False with EEXIST when that name exists already.
    bool publish(const std::string& path);
    /// Removes the file's name if it still is this file's.
    void remove();

    bool claim(CardPart part);
    void release(CardPart part);
    /// Who else holds a part; empty when nobody does. The locks of this process do not count.
    std::optional<pid_t> holderOf(CardPart part) const;

private:
    template <typename Accept>
    static CardFile openIf(const std::string& path, Accept accept);
    void close();

    int m_fd = -1;
    std::string m_path;
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

/// The name of a card's file: one card a bus and user.
std::string cardPath(const std::string& directory, uid_t user, std::uint32_t bus);
/// Removes what dead hosts of the calling user left behind. @return how many files.
unsigned removeStaleFiles(const std::string& directory);

}  // namespace vexo_sim
