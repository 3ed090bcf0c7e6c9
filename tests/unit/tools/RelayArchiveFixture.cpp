#include "tests/unit/tools/RelayArchiveFixture.h"

#include <sqlite3.h>
#include <algorithm>
#include <filesystem>

#include "tests/unit/sim/remote/Messages.h"

namespace relay {

bool Inbox::publish(const std::string& subject, const void* data, std::size_t size) {
    if (wire::decodeHistoryEnd(data, size, end)) {
        subjects.push_back(subject);
        EXPECT_EQ(end.messages, messages);
        messages = 0;
        return true;
    }
    ++messages;
    const wire::Message message = wire::decode(data, size);
    EXPECT_EQ(message.problem, wire::Problem::kNone);
    EXPECT_NE(message.head.flags & wire::kHistory, 0U);
    if (message.head.packets == 0) counts.push_back(message.head);
    wire::forEachPacket(message, [&](const wire::PacketIn& packet) {
        EXPECT_EQ(wire::Packet(packet.data, packet.data + packet.size), wire::PacketOf(packet.number));
        packets.push_back({message.head.epoch, packet.number, packet.timeNs});
    });
    return true;
}

RelayArchive::RelayArchive() {
    settings.directory = dir.Path();
    settings.keepFreeBytes = 0;
}

void RelayArchive::Start(std::uint64_t epoch) {
    store.reset();
    m_epoch = epoch;
    counts = {};
    lost = 0;
    wire::Head stream;
    stream.epoch = epoch;
    stream.mtu = 2048;
    store = std::make_unique<ArchiveStore>(settings, vexo_sim::remote::Place{"colo", 0, 3}, stream,
                                           [this](const std::string& line) { lines.push_back(line); });
}

void RelayArchive::Add(std::uint64_t first, std::uint32_t packets) {
    wire::MessageWriter writer(64 * 1024);
    for (std::uint64_t n = first; n < first + packets; ++n) {
        const wire::Packet packet = wire::PacketOf(n);
        writer.add(TimeOf(n) - setBackNs, packet.data(), static_cast<std::uint32_t>(packet.size()));
    }
    wire::Head head;
    head.epoch = m_epoch;
    head.first = first;
    head.timeNs = TimeOf(first) - setBackNs;
    head.mtu = 2048;
    head.counts = counts;
    head.counts.delivered = std::max(counts.delivered, first + packets);
    const wire::Bytes bytes = writer.finish(head);
    nowNs = std::max(nowNs, TimeOf(first + packets));
    store->add(wire::decode(bytes.data, bytes.size), lost, nowNs);
}

void RelayArchive::Feed(std::uint64_t first, std::uint64_t end) {
    for (std::uint64_t n = first; n < end; n += 100) {
        Add(n, static_cast<std::uint32_t>(std::min<std::uint64_t>(100, end - n)));
        store->tick(nowNs);
    }
}

void RelayArchive::Heartbeat(std::uint64_t next) { Add(next, 0); }

void RelayArchive::Tick() {
    nowNs += kSecond;
    store->tick(nowNs);
}

void RelayArchive::Close() {
    store->close(nowNs);
    store.reset();
}

std::vector<Inbox::Packet> RelayArchive::Since(std::uint64_t timeNs, std::uint32_t mostBytes) {
    Inbox inbox;
    ArchiveHistory history(*store, inbox, 64 * 1024);
    wire::HistoryRequest request{0, 0, 0, timeNs, mostBytes};
    do {
        const std::vector<unsigned char> bytes = wire::encodeHistoryRequest(request);
        history.ask(bytes.data(), bytes.size(), "_INBOX.receiver0001.1");
        history.answer();
        request.cursor = inbox.end.cursor;
        if (inbox.packets.empty()) continue;
        request.epoch = inbox.packets.back().epoch;
        request.next = inbox.packets.back().number + 1;
    } while (!inbox.end.isAll);
    return inbox.packets;
}

std::string RelayArchive::Numbers(const std::vector<Inbox::Packet>& packets) const {
    std::string text;
    for (std::size_t n = 0; n < packets.size();) {
        const Inbox::Packet& first = packets[n];
        std::size_t end = n;
        bool isTimeRight = true;
        for (;
             end < packets.size() && packets[end].epoch == first.epoch && packets[end].number == first.number + end - n;
             ++end)
            isTimeRight = isTimeRight && packets[end].timeNs == TimeOf(packets[end].number);
        text += (text.empty() ? "" : " ") + std::string(first.epoch == kNextEpoch ? "B:" : "") +
                std::to_string(first.number) + "-" + std::to_string(packets[end - 1].number) +
                (isTimeRight ? "" : " at a wrong time");
        n = end;
    }
    return text.empty() ? "nothing" : text;
}

std::vector<std::string> RelayArchive::Files() const {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir.Path()))
        if (entry.path().extension() == ".zst") files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

std::string RelayArchive::Catalogued(const std::string& query) const {
    sqlite3* database = nullptr;
    std::string text;
    const auto take = [](void* to, int columns, char** values, char**) {
        std::string& found = *static_cast<std::string*>(to);
        for (int n = 0; n < columns; ++n) found += (found.empty() ? "" : "|") + std::string(values[n] ? values[n] : "");
        return 0;
    };
    char* error = nullptr;
    EXPECT_EQ(sqlite3_open(dir.Path(ArchiveCatalogue::kName).c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, query.c_str(), take, &text, &error), SQLITE_OK) << (error ? error : "");
    sqlite3_close(database);
    return text;
}

bool RelayArchive::IsTold(const std::string& part) const {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(part) != std::string::npos; });
}

}  // namespace relay
