// kepfleet: the operator's command line to a fleet of devices over the MQTT broker.
//   kepfleet [options] call DEVICES REQUEST   one JSON line per device, then a summary
//   kepfleet [options] status [PATTERN]       devices online and offline
#include <fnmatch.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <json-c/json.h>

#include "calls.h"
#include "kep_rules.h"

using namespace kepfleet;

namespace {

constexpr size_t kMaxDevices = 100000;
constexpr size_t kMaxRequest = 1 << 20;

void usage(FILE *to) {
    fprintf(to,
            "usage: kepfleet [options] call DEVICES REQUEST\n"
            "       kepfleet [options] status [PATTERN]\n"
            "  DEVICES: a,b,c (names), @FILE (one name a line), or a pattern with * ? [ over the\n"
            "           devices' status topics (those offline are reported unanswered, not sent to)\n"
            "  REQUEST: the request text, e.g. '{\"method\":\"get\",\"ntp\":{\"table\":\"server\"}}'; @FILE "
            "reads it\n"
            "  --host HOST (localhost)  --port PORT (8883)  --ca-file FILE (required: TLS only)\n"
            "  --user NAME              this controller's broker user name\n"
            "  --password-file FILE     its password (first line); or --cert-file FILE --key-file FILE\n"
            "  -k, --in-flight N        requests outstanding at once (16)\n"
            "  -t, --timeout SECONDS    how long each device has to answer (10)\n"
            "  --settle-ms MS           status topics are complete after this long without one (300)\n"
            "  --no-progress            no progress bar, even on a terminal\n"
            "exit status: 0 every device answered with error_code 0; 1 any did not; 2 usage\n");
}

bool number(const char *text, long min, long max, long *out) {
    char *end = nullptr;
    const long n = strtol(text, &end, 10);
    if (end == text || *end || n < min || n > max) return false;
    *out = n;
    return true;
}

bool isPattern(const std::string &s) {
    return s.find_first_of("*?[") != std::string::npos;
}

// The names of a list or a file; false after saying why.
bool namesOf(const std::string &devicesArg, std::vector<std::string> *out) {
    std::string text = devicesArg;
    char separator = ',';
    if (!devicesArg.empty() && devicesArg[0] == '@') {
        if (!readSmallFile(devicesArg.substr(1), &text, kMaxDevices * (kMaxId + 2))) {
            fprintf(stderr, "kepfleet: cannot read %s (or it is too long)\n", devicesArg.c_str() + 1);
            return false;
        }
        separator = '\n';
    }
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find(separator, pos);
        if (end == std::string::npos) end = text.size();
        std::string name = text.substr(pos, end - pos);
        pos = end + 1;
        while (!name.empty() && strchr(" \t\r", name.back())) name.pop_back();
        while (!name.empty() && strchr(" \t", name.front())) name.erase(0, 1);
        if (name.empty() || name[0] == '#') continue;
        if (!validId(name)) {
            fprintf(stderr, "kepfleet: \"%s\" is no device name\n", keprules::loggable(name).c_str());
            return false;
        }
        out->push_back(name);
        if (out->size() > kMaxDevices) {
            fprintf(stderr, "kepfleet: more than %zu devices\n", kMaxDevices);
            return false;
        }
    }
    return true;
}

void progress(size_t done, size_t total, size_t noAnswer) {
    const int width = 30;
    const int filled = total ? static_cast<int>(done * width / total) : width;
    fprintf(stderr, "\r[%.*s%*s] %zu/%zu, %zu no answer", filled, "##############################",
            width - filled, "", done, total, noAnswer);
    fflush(stderr);
}

std::string outcomeLine(const Outcome &o) {
    json_object *line = json_object_new_object();
    json_object_object_add(line, "device", json_object_new_string(o.device.c_str()));
    if (o.answered) {
        json_object *response = keprules::parseWhole(o.response, nullptr);
        json_object_object_add(line, "error_code", json_object_new_int(errorCodeOf(o.response, -1)));
        json_object_object_add(line, "response",
                               response ? response : json_object_new_string(o.response.c_str()));
        json_object_object_add(line, "ms", json_object_new_int64(o.ms));
    } else {
        json_object_object_add(line, "error_code", nullptr);
        json_object_object_add(line, "response", json_object_new_string("no answer"));
    }
    std::string text = json_object_to_json_string_ext(line, JSON_C_TO_STRING_PLAIN);
    json_object_put(line);
    return text;
}

std::string summaryLine(const Summary &s) {
    json_object *sum = json_object_new_object(), *errors = json_object_new_object();
    json_object_object_add(sum, "devices", json_object_new_int64(static_cast<int64_t>(s.devices)));
    json_object_object_add(sum, "answered", json_object_new_int64(static_cast<int64_t>(s.answered)));
    for (const auto &e : s.errors)
        json_object_object_add(errors, std::to_string(e.first).c_str(),
                               json_object_new_int64(static_cast<int64_t>(e.second)));
    json_object_object_add(sum, "errors", errors);
    json_object_object_add(sum, "no_answer", json_object_new_int64(static_cast<int64_t>(s.noAnswer)));
    json_object_object_add(sum, "p50_ms", s.p50 < 0 ? nullptr : json_object_new_int64(s.p50));
    json_object_object_add(sum, "p99_ms", s.p99 < 0 ? nullptr : json_object_new_int64(s.p99));
    json_object *line = json_object_new_object();
    json_object_object_add(line, "summary", sum);
    std::string text = json_object_to_json_string_ext(line, JSON_C_TO_STRING_PLAIN);
    json_object_put(line);
    return text;
}

}  // namespace

int main(int argc, char **argv) {
    static const option options[] = {{"host", required_argument, nullptr, 'H'},
                                     {"port", required_argument, nullptr, 'p'},
                                     {"ca-file", required_argument, nullptr, 'C'},
                                     {"user", required_argument, nullptr, 'u'},
                                     {"password-file", required_argument, nullptr, 'P'},
                                     {"cert-file", required_argument, nullptr, 'E'},
                                     {"key-file", required_argument, nullptr, 'K'},
                                     {"in-flight", required_argument, nullptr, 'k'},
                                     {"timeout", required_argument, nullptr, 't'},
                                     {"settle-ms", required_argument, nullptr, 'S'},
                                     {"no-progress", no_argument, nullptr, 'n'},
                                     {"help", no_argument, nullptr, 'h'},
                                     {nullptr, 0, nullptr, 0}};
    BrokerSettings b;
    long inFlight = 16, timeout = 10, settle = 300, n = 0;
    bool showProgress = isatty(2);
    int opt;
    while ((opt = getopt_long(argc, argv, "k:t:h", options, nullptr)) != -1) {
        bool ok = true;
        switch (opt) {
            case 'H':
                b.host = optarg;
                break;
            case 'p':
                ok = number(optarg, 1, 65535, &n) && (b.port = static_cast<int>(n));
                break;
            case 'C':
                b.caFile = optarg;
                break;
            case 'u':
                b.user = optarg;
                break;
            case 'P':
                b.passwordFile = optarg;
                break;
            case 'E':
                b.certFile = optarg;
                break;
            case 'K':
                b.keyFile = optarg;
                break;
            case 'k':
                ok = number(optarg, 1, 10000, &inFlight);
                break;
            case 't':
                ok = number(optarg, 1, 3600, &timeout);
                break;
            case 'S':
                ok = number(optarg, 50, 60000, &settle);
                break;
            case 'n':
                showProgress = false;
                break;
            case 'h':
                usage(stdout);
                return 0;
            default:
                ok = false;
        }
        if (!ok) {
            fprintf(stderr, "kepfleet: bad value for an option\n");
            usage(stderr);
            return 2;
        }
    }
    const std::string command = optind < argc ? argv[optind] : "";
    const int rest = argc - optind - 1;
    if (!((command == "call" && rest == 2) || (command == "status" && rest <= 1)) || b.caFile.empty() ||
        b.user.empty() || (b.passwordFile.empty() && b.certFile.empty())) {
        usage(stderr);
        return 2;
    }
    std::string request;
    std::vector<std::string> devices;
    const std::string devicesArg = rest >= 1 ? argv[optind + 1] : "*";
    if (command == "call") {
        request = argv[optind + 2];
        if (!request.empty() && request[0] == '@' &&
            !readSmallFile(request.substr(1), &request, kMaxRequest)) {
            fprintf(stderr, "kepfleet: cannot read %s (or it is over %zu bytes)\n", argv[optind + 2] + 1,
                    kMaxRequest);
            return 2;
        }
        if (request.size() > kMaxRequest) return fprintf(stderr, "kepfleet: the request is too long\n"), 2;
        if (!isPattern(devicesArg) && !namesOf(devicesArg, &devices)) return 2;
    }

    mosquitto_lib_init();
    int status = 0;
    {
        Controller c(b);
        if (!c.open(static_cast<int>(timeout) * 1000)) {
            mosquitto_lib_cleanup();
            return 1;
        }
        std::vector<Outcome> outcomes;
        std::map<std::string, std::string> known;
        if (command == "status" || isPattern(devicesArg)) {
            known = c.statuses(static_cast<int>(settle), static_cast<int>(timeout) * 1000);
            for (auto it = known.begin(); it != known.end();)
                it = fnmatch(devicesArg.c_str(), it->first.c_str(), 0) == 0 ? std::next(it) : known.erase(it);
        }
        if (command == "status") {
            size_t online = 0;
            for (const auto &k : known) {
                printf("{\"device\":\"%s\",\"status\":\"%s\"}\n", k.first.c_str(), k.second.c_str());
                online += k.second == "online";
            }
            printf("{\"summary\":{\"online\":%zu,\"offline\":%zu}}\n", online, known.size() - online);
        } else {
            if (isPattern(devicesArg)) {
                for (const auto &k : known) {
                    if (k.second == "online") {
                        devices.push_back(k.first);
                    } else {
                        Outcome o;
                        o.device = k.first;
                        outcomes.push_back(o);
                        printf("%s\n", outcomeLine(o).c_str());
                    }
                }
            }
            const size_t total = devices.size() + outcomes.size();
            size_t noAnswer = outcomes.size();
            c.call(devices, request, static_cast<int>(inFlight), static_cast<int>(timeout) * 1000,
                   [&](const Outcome &o) {
                       outcomes.push_back(o);
                       noAnswer += !o.answered;
                       printf("%s\n", outcomeLine(o).c_str());
                       fflush(stdout);
                       if (showProgress) progress(outcomes.size(), total, noAnswer);
                   });
            if (showProgress) fprintf(stderr, "\n");
            const Summary s = summarize(outcomes);
            printf("%s\n", summaryLine(s).c_str());
            status = s.answered == s.devices && s.errors.empty() ? 0 : 1;
        }
    }
    mosquitto_lib_cleanup();
    return status;
}
