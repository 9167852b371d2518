// lsctl stream: what gpsd's clients ask.
#include "stream_gpsd.h"

#include <algorithm>

namespace {

// Of a refused request, what is repeated to its sender.
constexpr size_t SHOWN_SIZE = 40;

constexpr const char *BETWEEN_REQUESTS = " \t\r\n;";
constexpr const char *REQUEST_ENDS = "\r\n;";

bool is_letter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Where the object that begins at `from` ends, behind its last brace; npos: not yet.
size_t object_end(const std::string &text, size_t from) {
    size_t depth = 0;
    bool quoted = false;
    for (size_t at = from; at < text.size(); ++at) {
        const char c = text[at];
        if (quoted && c == '\\')
            ++at;
        else if (c == '"')
            quoted = !quoted;
        else if (!quoted && c == '{')
            ++depth;
        else if (!quoted && c == '}' && --depth == 0)
            return at + 1;
    }
    return std::string::npos;
}

gpsd_request refused(const std::string &text) {
    return {.name = {},
            .argument = {},
            .fault = "Unrecognized request '" + text.substr(0, SHOWN_SIZE) + "'"};
}

lsctl_json device(const std::string &activated) {
    return {{"class", "DEVICE"},
            {"path", GPSD_DEVICE},
            {"driver", GPSD_DEVICE},
            {"activated", activated},
            {"flags", 1}};
}

std::string devices(const std::string &activated) {
    return gpsd_line({{"class", "DEVICES"}, {"devices", lsctl_json::array({device(activated)})}});
}

std::string watch(const gpsd_session &session) {
    return gpsd_line({{"class", "WATCH"},
                      {"enable", session.enabled},
                      {"json", session.json},
                      {"nmea", session.nmea},
                      {"raw", 0},
                      {"scaled", false},
                      {"timing", false},
                      {"split24", false},
                      {"pps", false}});
}

// Sets `value` when the object has the key; false: what it has is no boolean.
bool take_boolean(const lsctl_json &object, const char *key, bool &value) {
    const auto found = object.find(key);
    if (found == object.end())
        return true;
    if (!found->is_boolean())
        return false;
    value = found->get<bool>();
    return true;
}

// What is wrong with the object behind "WATCH=" or "DEVICE="; empty: nothing.
std::string argument_fault(const std::string &name, const lsctl_json &object,
                           const char *device_key) {
    if (!object.is_object())
        return "Invalid " + name + ": no JSON object";
    const auto path = object.find(device_key);
    if (path == object.end())
        return {};
    if (!path->is_string())
        return "Invalid " + name + ": " + device_key + " is no string";
    const auto wanted = path->get<std::string>();
    return wanted.empty() || wanted == GPSD_DEVICE
               ? ""
               : "No such device as '" + wanted.substr(0, SHOWN_SIZE) + "'";
}

// The new settings, or the sentence that refuses them.
std::string set_watch(gpsd_session &session, const lsctl_json &object) {
    std::string fault = argument_fault("WATCH", object, "device");
    if (!fault.empty())
        return fault;
    gpsd_session wanted = session;
    wanted.enabled = true;
    if (!take_boolean(object, "enable", wanted.enabled) ||
        !take_boolean(object, "json", wanted.json) || !take_boolean(object, "nmea", wanted.nmea))
        return "Invalid WATCH: enable, json and nmea are true or false";
    if (wanted.enabled && !object.contains("json") && !wanted.nmea)
        wanted.json = true; // somebody who watches wants to see something
    session = wanted;
    return {};
}

} // namespace

std::optional<gpsd_request> gpsd_take_request(std::string &input) {
    input.erase(0, std::min(input.find_first_not_of(BETWEEN_REQUESTS), input.size()));
    if (input.empty())
        return std::nullopt;
    // Up to the end of the line or to ';': what is told of a request that is none.
    const size_t end = input.find_first_of(REQUEST_ENDS);
    size_t name_end = 1;
    while (name_end < input.size() && is_letter(input[name_end]))
        ++name_end;
    if (input[0] == '?' && name_end > 1 && name_end < input.size() && input[name_end] == '=') {
        const size_t begin = input.find_first_not_of(" \t", name_end + 1);
        if (begin == std::string::npos)
            return std::nullopt;
        const size_t done = input[begin] == '{' ? object_end(input, begin) : std::string::npos;
        const size_t line_end = input.find_first_of("\r\n");
        if (done != std::string::npos && done <= line_end) {
            gpsd_request request{.name = input.substr(1, name_end - 1),
                                 .argument = input.substr(begin, done - begin),
                                 .fault = {}};
            input.erase(0, done);
            return request;
        }
        if (input[begin] == '{' && line_end == std::string::npos)
            return std::nullopt;
    }
    if (end == std::string::npos)
        return std::nullopt;
    const std::string text = input.substr(0, end);
    input.erase(0, end);
    if (text[0] != '?' || text.size() < 2 || name_end != text.size())
        return refused(text);
    return gpsd_request{.name = text.substr(1), .argument = {}, .fault = {}};
}

std::string gpsd_reply(gpsd_session &session, const gpsd_request &request,
                       const std::string &activated) {
    if (!request.fault.empty())
        return gpsd_error(request.fault);
    const lsctl_json object = lsctl_json::parse(request.argument.value_or("{}"), nullptr, false);
    if (request.name == "VERSION")
        return gpsd_version();
    if (request.name == "DEVICES")
        return devices(activated);
    if (request.name == "DEVICE") {
        const std::string fault = argument_fault(request.name, object, "path");
        return fault.empty() ? gpsd_line(device(activated)) : gpsd_error(fault);
    }
    if (request.name == "WATCH") {
        const std::string fault = request.argument ? set_watch(session, object) : "";
        return fault.empty() ? devices(activated) + watch(session) : gpsd_error(fault);
    }
    return gpsd_error(refused("?" + request.name).fault);
}

bool gpsd_is_poll(const gpsd_request &request) {
    return request.name == "POLL";
}

std::string gpsd_version() {
    // The minor number is that of the fields used here.
    return gpsd_line({{"class", "VERSION"},
                      {"release", "lsctl-" LSCTL_VERSION},
                      {"rev", "lsctl-" LSCTL_VERSION},
                      {"proto_major", 3},
                      {"proto_minor", 14}});
}

std::string gpsd_error(const std::string &message) {
    return gpsd_line({{"class", "ERROR"}, {"message", message}});
}
