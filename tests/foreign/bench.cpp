#include "bench.h"

#include "line_peer.h"

#include <regex>
#include <sys/mman.h>
#include <sys/socket.h>

bench::bench() {
    memory = memfd_create("foreign", MFD_CLOEXEC);
    int ends[2] = {-1, -1};
    if (ftruncate(memory, sizeof(foreign_state)) != 0 ||
        socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        std::abort();
    ours = ends[0];
    theirs = ends[1];
    void *block =
        mmap(nullptr, sizeof(foreign_state), PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    state = new (block) foreign_state;
    for (const char *file : {"export", "unexport", "gpio102/direction", "gpio102/value",
                             "gpio37/direction", "gpio37/value"})
        scratch_dir::write(std::string("sys/class/gpio/") + file, "");
    scratch_dir::write("user/stub_location/stub_loc.gps", "STATIC_LOCATION = OF\n");
    scratch_dir::write("user/gps_control_prm.txt", "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 2\n"
                                                   "GPS_GET_POS_BUFFER_TIME 0\n"
                                                   "LOCATION_HISTORY_BOOT_TIME_OFFSET 0\n");
    std::filesystem::create_directories("user/location");
}

bench::~bench() {
    daemon.reset();
    shutdown(ours, SHUT_RDWR);
    reader = {};
    if (HasFailure())
        for (size_t i = seen.size() - std::min<size_t>(seen.size(), 60); i < seen.size(); ++i)
            std::cerr << i << ", thread " << seen[i].thread << ": " << seen[i].line << "\n";
    for (const int fd : {memory, ours, theirs})
        close(fd);
    munmap(state, sizeof(*state));
}

void bench::launch() {
    setenv("LD_LIBRARY_PATH", FOREIGN_LIBRARIES, 1);
    dup2(theirs, FOREIGN_SOCKET);
    dup2(memory, FOREIGN_MEMORY);
    daemon.emplace(words{DAEMON_PROGRAM});
    close(FOREIGN_SOCKET);
    close(FOREIGN_MEMORY);
    close(theirs);
    theirs = -1;
    unsetenv("LD_LIBRARY_PATH");
    reader = std::jthread([this] { read_events(); });
}

void bench::start() {
    launch();
    ASSERT_GE(await("call rtc_reinit"), 0) << daemon->err();
}

int bench::end() {
    daemon->signal(SIGTERM);
    const int status = daemon->wait().status;
    wait_until([&] { return !lives(); });
    return status;
}

void bench::pass_on(const bus_message &message) const {
    bytes packet = payload_of(message.hdr);
    packet.insert(packet.end(), message.payload.begin(), message.payload.end());
    ::send(ours, packet.data(), packet.size(), MSG_NOSIGNAL);
}

uint32_t bench::deliver(uint32_t id, uint8_t from, const bytes &payload, uint8_t type) {
    const uint32_t transaction = ++transactions;
    const auto size = static_cast<uint32_t>(payload.size());
    pass_on({{type, 0, from, LS_OWN_SERV_ID, id, transaction, size, 0}, payload});
    return transaction;
}

uint32_t bench::deliver_command(const std::string &body, uint8_t from) {
    ls_engg_cmd record = {};
    body.copy(record.command, sizeof(record.command) - 1);
    return deliver(LS_EXEC_NMEA_CMD, from, payload_of(record));
}

// The receiver: a sentence to a poll for the position, else the poll itself.
void bench::answer_ta(const std::string &poll) {
    std::string text = poll;
    for (const char *known :
         {"GPGGA,123318.00,5130.000,N,00007.500,W,1,08,0.9,545.4,M,46.9,M,,",
          "GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1", "GPZDA,123318.00,31,12,2019,00,00"})
        if (poll.find("GPGPQ," + std::string(known + 2, 3)) != std::string::npos)
            text = nmea(known);
    gps_data_req_pld record = {};
    record.status = 1;
    text.copy(reinterpret_cast<char *>(record.response), sizeof(record.response));
    record.cmd_len = static_cast<uint32_t>(text.size());
    deliver(TA_REQUEST_GPS_DATA, LS_SERV_TA, payload_of(record), LS_MSG_RESPONSE);
}

void bench::read_events() {
    std::vector<char> packet(FOREIGN_PACKET_SIZE);
    for (ssize_t size; (size = recv(ours, packet.data(), packet.size(), 0)) > 0;) {
        foreign_event event = {};
        memcpy(&event.thread, packet.data(), sizeof(event.thread));
        event.line = &packet[sizeof(event.thread)];
        bus_message &sent = event.sent;
        const char *rest = &packet[sizeof(event.thread) + event.line.size() + 1];
        if (event.line.starts_with("send ")) {
            memcpy(&sent.hdr, rest, sizeof(sent.hdr));
            sent.payload.assign(rest + sizeof(sent.hdr),
                                static_cast<const char *>(packet.data()) + size);
        }
        if (sent.hdr.dst_serv_id == LS_OWN_SERV_ID)
            pass_on(sent);
        const bool to_ta = sent.hdr.dst_serv_id == LS_SERV_TA && !ta_silent;
        const auto asked = record_in<gps_data_req_pld>(sent);
        {
            const std::lock_guard guard(lock);
            seen.push_back(std::move(event));
        }
        arrived.notify_all();
        if (to_ta)
            answers.emplace_back([this, asked, delay_ms = ta_delay_ms.load()] {
                std::this_thread::sleep_for(milliseconds(delay_ms));
                answer_ta({reinterpret_cast<const char *>(asked.command),
                           std::min<size_t>(asked.cmd_len, sizeof(asked.command))});
            });
    }
    socket_ended = true;
    arrived.notify_all();
}

int bench::await(const std::string &pattern, int from) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    const std::regex wanted(pattern);
    std::unique_lock guard(lock);
    for (auto i = static_cast<size_t>(from);; ++i) {
        arrived.wait_until(guard, deadline, [&] { return i < seen.size() || socket_ended; });
        if (i >= seen.size()) {
            ADD_FAILURE() << "not seen: " << pattern
                          << (socket_ended ? "; the daemon has ended" : "");
            return -1;
        }
        if (std::regex_search(seen[i].line, wanted))
            return static_cast<int>(i);
    }
}

bytes bench::reply(uint32_t transaction, int *place) {
    const int at = await("^send 1 .* in " + std::to_string(transaction) + "$");
    if (place != nullptr)
        *place = at;
    return at < 0 ? bytes() : events(at).front().sent.payload;
}

std::string bench::answer(uint32_t transaction, int *place) {
    const auto record = record_in<ls_engg_cmd>(bus_message{{}, reply(transaction, place)});
    const auto *text = reinterpret_cast<const char *>(record.answer);
    return record.status == 1 ? std::string(text, strnlen(text, sizeof(record.answer))) : "";
}

std::vector<foreign_event> bench::events(int from) {
    const std::lock_guard guard(lock);
    return {seen.begin() + from, seen.end()};
}

int bench::count(const std::string &pattern, int from) {
    const std::regex wanted(pattern);
    const auto all = events(from);
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const foreign_event &event) {
        return std::regex_search(event.line, wanted);
    }));
}

int bench::now() {
    const std::lock_guard guard(lock);
    return static_cast<int>(seen.size());
}
