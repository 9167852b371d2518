#include "bench.h"

#include "line_peer.h"

#include <sys/mman.h>
#include <sys/socket.h>

msg_hdr foreign_event::header() const {
    msg_hdr hdr = {};
    memcpy(&hdr, first.data(), std::min(first.size(), sizeof(hdr)));
    return hdr;
}

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
    for (size_t i = HasFailure() ? seen.size() - std::min<size_t>(seen.size(), 60) : seen.size();
         i < seen.size(); ++i) {
        const foreign_event &e = seen[i];
        std::cerr << i << ", thread " << e.thread << ", " << e.number << ": "
                  << (e.kind == EVENT_SEND ? "send " + std::to_string(e.header().msg_id) : e.first)
                  << "\n";
    }
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
    ASSERT_GE(await_call("rtc_reinit"), 0) << daemon->err();
}

int bench::end() {
    daemon->signal(SIGTERM);
    const int status = daemon->wait().status;
    wait_until([&] { return !lives(); });
    return status;
}

uint32_t bench::deliver(uint32_t id, uint8_t from, const bytes &payload, uint8_t type) {
    const uint32_t transaction = ++transactions;
    const msg_hdr hdr = {
        type, 0, from, LS_OWN_SERV_ID, id, transaction, static_cast<uint32_t>(payload.size()), 0};
    bytes packet = payload_of(hdr);
    packet.insert(packet.end(), payload.begin(), payload.end());
    ::send(ours, packet.data(), packet.size(), MSG_NOSIGNAL);
    return transaction;
}

void bench::read_events() {
    std::vector<char> packet(size_t{128} * 1024);
    while (true) {
        const ssize_t size = recv(ours, packet.data(), packet.size(), 0);
        foreign_event_head head = {};
        if (size < static_cast<ssize_t>(sizeof(head)))
            break;
        memcpy(&head, packet.data(), sizeof(head));
        const char *text = packet.data() + sizeof(head);
        foreign_event event = {head.kind, head.number, head.thread,
                               std::string(text, head.first_size),
                               std::string(text + head.first_size, head.second_size)};
        if (event.kind == EVENT_SEND && event.header().dst_serv_id == LS_OWN_SERV_ID)
            ::send(ours, (event.first + event.second).data(),
                   event.first.size() + event.second.size(), MSG_NOSIGNAL);
        const bool to_ta = event.is_send(LS_MSG_REQUEST, TA_REQUEST_GPS_DATA);
        std::string poll;
        if (to_ta) {
            gps_data_req_pld request = {};
            memcpy(&request, event.second.data(), sizeof(request));
            poll.assign(reinterpret_cast<const char *>(request.command),
                        std::min<size_t>(request.cmd_len, sizeof(request.command)));
        }
        {
            const std::lock_guard guard(lock);
            seen.push_back(std::move(event));
        }
        arrived.notify_all();
        if (to_ta && !ta_silent)
            answers.emplace_back([this, poll, delay = ta_delay_ms.load()] {
                usleep(static_cast<useconds_t>(delay) * 1000);
                answer_ta(echo(poll));
            });
    }
    socket_ended = true;
    arrived.notify_all();
}

int bench::await(const std::string &what, const event_test &wanted, int from, milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::unique_lock guard(lock);
    for (auto i = static_cast<size_t>(from);; ++i) {
        const bool there =
            arrived.wait_until(guard, deadline, [&] { return i < seen.size() || socket_ended; });
        if (!there || i >= seen.size()) {
            ADD_FAILURE() << "not seen: " << what << (socket_ended ? "; the daemon has ended" : "");
            return -1;
        }
        if (wanted(seen[i]))
            return static_cast<int>(i);
    }
}

bytes bench::reply(uint32_t transaction, int *place) {
    const int at =
        await("reply to transaction " + std::to_string(transaction), [&](const foreign_event &e) {
            return e.kind == EVENT_SEND && e.header().msg_type == LS_MSG_RESPONSE &&
                   e.header().txn_id == transaction;
        });
    if (place != nullptr)
        *place = at;
    if (at < 0)
        return {};
    const std::string payload = events(at).front().second;
    return {payload.begin(), payload.end()};
}

std::vector<foreign_event> bench::events(int from) {
    const std::lock_guard guard(lock);
    return {seen.begin() + from, seen.end()};
}

int bench::count(const event_test &wanted, int from) {
    const auto all = events(from);
    return static_cast<int>(std::count_if(all.begin(), all.end(), wanted));
}

int bench::now() {
    const std::lock_guard guard(lock);
    return static_cast<int>(seen.size());
}

ls_engg_cmd bench::command(const std::string &body) {
    ls_engg_cmd record = {};
    body.copy(record.command, sizeof(record.command) - 1);
    return record;
}

void bench::answer_ta(const std::string &answer) {
    gps_data_req_pld record = {};
    record.status = 1;
    answer.copy(reinterpret_cast<char *>(record.response), sizeof(record.response));
    record.cmd_len = static_cast<uint32_t>(answer.size());
    deliver(TA_REQUEST_GPS_DATA, LS_SERV_TA, payload_of(record), LS_MSG_RESPONSE);
}

std::string bench::echo(const std::string &command) {
    if (command.find("GPGPQ,GGA") != std::string::npos)
        return nmea("GPGGA,123318.00,5130.000,N,00007.500,W,1,08,0.9,545.4,M,46.9,M,,");
    if (command.find("GPGPQ,GSA") != std::string::npos)
        return nmea("GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1");
    if (command.find("GPGPQ,ZDA") != std::string::npos)
        return nmea("GPZDA,123318.00,31,12,2019,00,00");
    return command;
}
