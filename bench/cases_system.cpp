/*
 * The kernel: its own sockets on the loopback interface, and beside libruk over the software adapter on a veth pair.
 */
#include "cases.h"

#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <stdexcept>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

/* Two sockets on the loopback interface, one connected to the other. */
class Loopback {
public:
    Loopback()
    {
        sockaddr_in sin = {};
        sin.sin_family = AF_INET;
        sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof sin;
        receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (receiver < 0 || sender < 0 || bind(receiver, reinterpret_cast<sockaddr *>(&sin), sizeof sin) != 0 ||
            getsockname(receiver, reinterpret_cast<sockaddr *>(&sin), &len) != 0 ||
            connect(sender, reinterpret_cast<sockaddr *>(&sin), sizeof sin) != 0)
            throw Unavailable(std::string("no loopback sockets: ") + std::strerror(errno));
    }
    ~Loopback()
    {
        close(receiver);
        close(sender);
    }
    Loopback(const Loopback &) = delete;
    Loopback &operator=(const Loopback &) = delete;
    int receiver = -1, sender = -1;
};

/* Nanoseconds a datagram of recvfrom() or of send(), delivery into the receiver's queue included. */
Measure kernel_sockets(size_t bytes, size_t batches, bool receiving)
{
    auto pair = std::make_shared<Loopback>();
    return [=] {
        constexpr int batch = 40; /* the receive buffer holds them */
        char buffer[2048] = {};
        double sending = 0, taking = 0;
        for (size_t b = 0; b < batches; ++b) {
            bool good = true;
            const double t0 = now_ns();
            for (int i = 0; i < batch; ++i)
                good &= send(pair->sender, buffer, bytes, 0) == ssize_t(bytes);
            const double t1 = now_ns();
            for (int i = 0; i < batch; ++i) {
                sockaddr_in from;
                socklen_t len = sizeof from;
                good &= recvfrom(pair->receiver, buffer, sizeof buffer, MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr *>(&from), &len) == ssize_t(bytes);
            }
            taking += now_ns() - t1;
            sending += t1 - t0;
            if (!good)
                throw Unavailable("a datagram was lost on the loopback interface");
        }
        return (receiving ? taking : sending) / double(batches * batch);
    };
}

/*
 * Two hosts joined by a veth pair, for as long as the shell lives. On the far one an echo server sleeps until a request
 * comes; ruk-ping on the near one spins for its replies. The application has one processor, the far host another, and
 * the adapter's thread, which would be hardware, is on that as well; a second echo server is on the application's.
 * Lines on standard input say what to measure with: "libruk", "kernel", or "kernel_beside" its peer on one processor;
 * each is answered by ruk-ping's result in JSON on one line, "ready" coming first of all, or "refused" with the reason
 * where the host does not let them be set up. What ruk-ping warns of goes to standard error.
 *
 * All of it is one process group. It ends with the shell, and with this program however that ends: the descriptor it
 * is given then comes to its end, also while the shell itself waits for ruk-ping.
 */
constexpr const char *veth_hosts = R"sh(
set -e
bin=$0 count=$1 alive=$2 near=$3 far=$4
answer() { printf '%s\n' "$*"; exit 1; }
work=$(mktemp -d)
end() { rm -rf "$work"; kill -KILL 0; }
trap end EXIT
(read -r -u $alive || end) <&- >/dev/null 2>&1 &
unshare --net sh -c 'echo there >"$0"; exec sleep 600' "$work/holder" & holder=$!
for ((i = 0; i < 100; i++)); do [[ -s $work/holder ]] && break; sleep 0.05; done
{ ip link set lo up &&
    ip link add oxel0 address 02:6f:78:00:00:01 type veth peer name peer0 address 02:00:00:00:00:02 netns $holder &&
    ip address add 10.77.0.1/24 brd + dev oxel0 && ip link set oxel0 up; } 2>"$work/err" || answer "refused $(head -1 "$work/err")"
peer() { nsenter --target $holder --net -- "$@"; }
peer ip link set lo up
peer ip address add 10.77.0.2/24 brd + dev peer0
peer ip link set peer0 up
serve() {
    nsenter --target $holder --net -- "$bin/ruk-ping" server --kernel -i peer0 -p "$1" --cpu "$2" --wait block -t 500 \
        >"$work/echo$1" 2>&1 &
    for ((i = 0; i < 200; i++)); do grep -qs answering "$work/echo$1" && return; sleep 0.05; done
    answer "no echo server: $(tail -1 "$work/echo$1")"
}
serve 7000 "$far"
serve 7001 "$near"
export RUK_SOFTNIC_CPU=$far
echo ready
while read -r with; do
    run=(timeout --foreground 60)
    options=(-i oxel0 --cpu "$near" --size 64 --count $count --warmup 200 --wait spin --json)
    port=7000
    if [[ $with == libruk ]]; then run+=("$bin/rukrun" --soft=oxel0 --); else options+=(--kernel); fi
    if [[ $with == kernel_beside ]]; then port=7001; fi
    "${run[@]}" "$bin/ruk-ping" client 10.77.0.2:$port "${options[@]}" >"$work/out" 2>"$work/err" ||
        answer "$(tail -1 "$work/err")"
    grep -s warning "$work/err" >&2 || true
    tr -d '\n' <"$work/out"; echo
done
)sh";

std::string directory_of_programs()
{
    std::array<char, 4096> path{};
    const ssize_t n = readlink("/proc/self/exe", path.data(), path.size() - 1);
    std::string whole(path.data(), n > 0 ? size_t(n) : 0);
    return whole.substr(0, whole.rfind('/'));
}

class VethHosts {
public:
    explicit VethHosts(size_t count)
    {
        const std::vector<int> processors = two_processors();
        if (processors.size() < 2)
            throw Unavailable("two hosts need two processors");
        const std::string near = std::to_string(processors[0]), far = std::to_string(processors[1]);
        int in[2], out[2], alive[2];
        if (pipe(in) != 0 || pipe(out) != 0 || pipe(alive) != 0)
            throw std::runtime_error("no pipes");
        const std::string bin = directory_of_programs(), number = std::to_string(count);
        const std::string end_of_this = std::to_string(alive[0]);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            for (int fd : {in[0], in[1], out[0], out[1], alive[1]})
                close(fd);
            if (setsid() < 0)
                _exit(127); /* the shell kills its group at its end */
            const char *user = geteuid() == 0 ? "--net" : "--user";
            const char *map = geteuid() == 0 ? "--net" : "--map-root-user";
            execlp("unshare", "unshare", user, map, "--net", "--", "bash", "-c", veth_hosts, bin.c_str(),
                   number.c_str(), end_of_this.c_str(), near.c_str(), far.c_str(), nullptr);
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        close(alive[0]);
        alive_ = alive[1];
        ask_ = fdopen(in[1], "w");
        answers_ = fdopen(out[0], "r");
        const std::string first = line();
        constexpr std::string_view refused = "refused ";
        if (first.empty())
            throw Unavailable("network namespaces cannot be had");
        if (first.rfind(refused, 0) == 0)
            throw Unavailable(first.substr(refused.size()));
        if (first != "ready")
            throw std::runtime_error(first);
    }
    ~VethHosts()
    {
        fclose(ask_); /* the end of its input ends the shell, and with it the hosts */
        fclose(answers_);
        waitpid(pid_, nullptr, 0);
        close(alive_);
    }
    VethHosts(const VethHosts &) = delete;
    VethHosts &operator=(const VethHosts &) = delete;

    double median_half_round_trip(const char *with)
    {
        fprintf(ask_, "%s\n", with);
        fflush(ask_);
        const std::string answer = line();
        const auto result = nlohmann::json::parse(answer, nullptr, false);
        if (!result.is_object() || !result.contains("half_round_trip_ns"))
            throw std::runtime_error(answer.empty() ? "ruk-ping gave no result" : answer);
        return result["half_round_trip_ns"]["p50"].get<double>();
    }

private:
    std::string line()
    {
        std::string text;
        for (int c; (c = fgetc(answers_)) != EOF && c != '\n';)
            text += char(c);
        return text;
    }
    pid_t pid_ = -1;
    int alive_ = -1;
    FILE *ask_ = nullptr, *answers_ = nullptr;
};

} // namespace

void add_kernel_cases(std::vector<Case> &cases, Effort effort)
{
    const size_t batches = effort.of(100);
    for (size_t bytes : {size_t(64), size_t(1400)}) {
        const std::string size = std::to_string(bytes);
        cases.push_back({"kernel_recvfrom_" + size, "kernel recvfrom on the loopback interface, " + size + " B",
                         one_thread, Compare::none, 0, 0, 0, "", 0, [=] {
                             return Measured{kernel_sockets(bytes, batches, true), {}};
                         }});
        cases.push_back({"kernel_send_" + size,
                         "kernel connected send on the loopback interface, delivery included, " + size + " B",
                         one_thread, Compare::none, 0, 0, 0, "", 0, [=] {
                             return Measured{kernel_sockets(bytes, batches, false), {}};
                         }});
    }
}

void add_veth_cases(std::vector<Case> &cases, Effort effort)
{
    const auto against = [=](const char *floor) {
        return [=] {
            auto hosts = std::make_shared<VethHosts>(effort.of(3000));
            return Measured{[=] { return hosts->median_half_round_trip("libruk"); },
                            [=] { return hosts->median_half_round_trip(floor); }};
        };
    };
    std::string why_not;
    for (const char *program : {"/rukrun", "/ruk-ping"})
        if (access((directory_of_programs() + program).c_str(), X_OK) != 0)
            why_not = std::string(program + 1) + " is not beside this program";

    const std::vector<int> processors = two_processors();
    const std::string near = processors.size() < 2 ? "one processor" : "processor " + std::to_string(processors[0]);
    const std::string far = processors.size() < 2 ? "another" : "processor " + std::to_string(processors[1]);
    const std::string what = "half round trip, 64 B, software adapter on a veth pair, against a kernel socket that "
                             "busy-polls";
    const std::string libruk = "the application spins on " + near + ", the peer, a kernel echo, sleeps on " + far +
                               ", where with libruk the adapter's thread spins";
    cases.push_back({"veth_64", what + ", its peer on another processor as libruk's is", libruk, Compare::ratio, 1.25,
                     1.0, 0, why_not, 7, against("kernel")});
    // No bound: there the kernel's application is beside its peer, and not in the place of libruk's.
    cases.push_back({"veth_64_beside", what + ", its peer on the same processor",
                     libruk + "; the kernel's peer sleeps on " + near + ", so that no wake-up goes to another",
                     Compare::none, 0, 0, 0, why_not, 7, against("kernel_beside")});
}

} // namespace bench
