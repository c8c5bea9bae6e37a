// The cost of a transfer against the floor, admission by client size, and footprint, measured
// side by side in one run, as root, in a private network namespace where port 80 is free. Cold
// transfers are first ones, with no record of the client (as after a change or a reboot), and
// recorded ones, whose admission the helper's record spares the hashing and the signature
// checks: in pairs for the small client, and for the padded clients the first ones size by size,
// then the recorded ones of every size in turn. The records live in a tmpfs of the benchmark's
// own over /run.
//
//   handoff_bench HELPER CLIENT FLOOR WORKDIR OUTPUT.json [TRANSFERS [--cold-only]]
// The ld-codesign beside the helper is used to time a signature check in a fresh process.
// --cold-only runs the cold transfers and nothing else (for profiling that path).
//
// HELPER is the release helper, CLIENT the signed transfer_client, FLOOR the static floor
// program; WORKDIR a root-owned directory for sockets and padded clients. This program is itself
// signed as the application, for the warm round trip on an open connection.

#include <fcntl.h>
#include <grp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "admission/peer_identity.h"
#include "platform/seqpacket.h"
#include "protocol/wire.h"
#include "shared/loopback_listeners.h"
#include "signing/code_signing.h"
#include "tools/code_signer.h"

#include "bench_support.h"

namespace {

using ldbench::die;
using ldbench::now;

struct Stats {
  std::vector<double> values;  // microseconds
  double quantile(double q) const {
    std::vector<double> sorted = values;
    std::sort(sorted.begin(), sorted.end());
    if (sorted.empty()) return 0;
    const auto index = static_cast<size_t>(q * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[std::min(index, sorted.size() - 1)];
  }
  double median() const { return quantile(0.5); }
  double p99() const { return quantile(0.99); }
};

using ldbench::bringLoopbackUp;

// The helper's record directory, empty, in a tmpfs over /run that only this benchmark and its
// children see.
void privateRecordDirectory() {
  if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") != 0 || ::mkdir(LD_VERIFIED_EXECUTABLE_DIRECTORY, 0700) != 0) {
    die("cannot make a record directory of my own at " LD_VERIFIED_EXECUTABLE_DIRECTORY);
  }
}

size_t recordCount() {
  const std::filesystem::directory_iterator records(LD_VERIFIED_EXECUTABLE_DIRECTORY);
  return static_cast<size_t>(std::distance(begin(records), end(records)));
}

void forgetRecords() {
  for (const auto& record : std::filesystem::directory_iterator(LD_VERIFIED_EXECUTABLE_DIRECTORY)) {
    std::filesystem::remove(record.path());
  }
}

// The helper records a file only once its times lie this far back.
void waitUntilRecordable(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) die("stat " + path);
  timespec wall{};
  ::clock_gettime(CLOCK_REALTIME, &wall);
  const auto nanoseconds = [](const timespec& t) { return static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec; };
  const int64_t due = std::max(nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)) +
                      LDAdmissionPolicy{}.recordSettling + 100'000'000;
  if (due > nanoseconds(wall)) ::usleep(static_cast<useconds_t>((due - nanoseconds(wall)) / 1000));
}

// Waits for pid; its exit status, and its peak RSS in KiB through *rss.
int reap(pid_t pid, long* rss = nullptr) {
  int status = 0;
  rusage usage{};
  if (::wait4(pid, &status, 0, &usage) != pid) die("wait4");
  if (rss) *rss = usage.ru_maxrss;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// One cold transfer: the client (as nobody) connects, the helper is activated, the client
// validates and acknowledges, the helper exits. From the client's connect to the helper's exit.
double coldTransfer(const std::string& helper, const std::string& client, int listening,
                    const std::string& socketPath, long* rss) {
  int output[2];
  if (::pipe2(output, O_CLOEXEC) != 0) die("pipe2");
  const pid_t clientPid = ::fork();
  if (clientPid == 0) {
    ::dup2(output[1], 1);
    if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
        ::setresuid(65534, 65534, 65534) != 0) {
      ::_exit(126);
    }
    ::execl(client.c_str(), client.c_str(), socketPath.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(output[1]);
  pollfd waiting{listening, POLLIN, 0};
  if (::poll(&waiting, 1, 10000) != 1) die("no client connected");
  const pid_t helperPid = ldbench::activateHelper(helper, listening, true);
  const int helperStatus = reap(helperPid, rss);
  const int64_t end = now();
  char text[64] = {};
  const ssize_t got = ::read(output[0], text, sizeof text - 1);
  ::close(output[0]);
  const int clientStatus = reap(clientPid);
  if (helperStatus != 0 || clientStatus != 0 || got <= 0) {
    die("a transfer failed (helper " + std::to_string(helperStatus) + ", client " + std::to_string(clientStatus) + ")");
  }
  return static_cast<double>(end - std::atoll(text)) / 1000.0;
}

// The floor: fork+exec of a static program that binds both listeners and passes them back.
double floorTransfer(const std::string& floor) {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) die("socketpair");
  const int64_t start = now();
  const pid_t child = ::fork();
  if (child == 0) {
    const int target = 3;
    if (!LDPlaceDescriptorsForExec(&pair[1], &target, 1)) ::_exit(125);
    ::execl(floor.c_str(), floor.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(pair[1]);
  LDReceivedPacket packet;
  int errorNumber = 0;
  pollfd ready{pair[0], POLLIN, 0};
  ::poll(&ready, 1, 5000);
  if (LDReceivePacket(pair[0], 16, &packet, &errorNumber) != LDReceiveResult::packet ||
      packet.descriptors.size() != 2) {
    die("the floor program passed nothing");
  }
  if (reap(child) != 0) die("the floor program failed");
  const int64_t end = now();
  ::close(pair[0]);
  return static_cast<double>(end - start) / 1000.0;
}

// A round trip on an open, admitted connection: Request to RequestReply (the helper binds,
// duplicates and draws a token in between), then Complete to CompleteReply. Run by a set-group-ID
// copy of this program as nobody (`--warm`), as only such a client is admitted; prints
// "request_us complete_us".
void warmClientRound(const std::string& socketPath) {
  LDFileHandle client(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
  if (::connect(client.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) die("connect");
  const auto receive = [&](LDReceivedPacket& packet) {
    pollfd ready{client.fileDescriptor(), POLLIN, 0};
    int errorNumber = 0;
    if (::poll(&ready, 1, 10000) != 1 ||
        LDReceivePacket(client.fileDescriptor(), LDWireMaximumPacketSize, &packet, &errorNumber) != LDReceiveResult::packet) {
      die("the helper did not answer (is this program signed as the application and set-group-ID?)");
    }
  };
  LDReceivedPacket packet;
  receive(packet);  // Hello: admitted
  int64_t start = now();
  (void)LDSendPacket(client.fileDescriptor(), LDEncodeMessage(LDRequestMessage{1}), {}, false);
  receive(packet);
  const double request = static_cast<double>(now() - start) / 1000.0;
  const auto reply = LDDecodeMessage(packet.bytes, packet.descriptors.size());
  const auto* transferred = reply ? std::get_if<LDRequestReplyMessage>(&*reply) : nullptr;
  if (!transferred || transferred->status != 0) die("the warm request failed");
  start = now();
  (void)LDSendPacket(client.fileDescriptor(), LDEncodeMessage(LDCompleteMessage{1, transferred->token, true}), {}, false);
  receive(packet);
  std::printf("%f %f\n", request, static_cast<double>(now() - start) / 1000.0);
  std::fflush(stdout);
}

// The helper's side of the warm round trips: activates a helper for each connection of the
// warm client (WORKDIR/warm_client) and tells the client when the previous helper has gone.
void warmRoundTrips(const std::string& helper, const std::string& work, int count, Stats& request, Stats& complete) {
  const std::string socketPath = work + "/warm.sock";
  LDFileHandle listening = ldbench::listenAt(socketPath, 16);
  int go[2], results[2];
  if (::pipe2(go, O_CLOEXEC) != 0 || ::pipe2(results, O_CLOEXEC) != 0) die("pipe2");
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(go[0], 0);
    ::dup2(results[1], 1);
    if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) {
      ::_exit(126);
    }
    const std::string program = work + "/warm_client";
    ::execl(program.c_str(), program.c_str(), "--warm", socketPath.c_str(), std::to_string(count).c_str(),
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(go[0]);
  ::close(results[1]);
  for (int i = 0; i < count; ++i) {
    (void)!::write(go[1], "g", 1);
    pollfd waiting{listening.fileDescriptor(), POLLIN, 0};
    if (::poll(&waiting, 1, 10000) != 1) die("the warm client did not connect");
    if (reap(ldbench::activateHelper(helper, listening.fileDescriptor(), true)) != 0) die("the helper did not exit 0");
  }
  ::close(go[1]);
  FILE* lines = ::fdopen(results[0], "r");
  double r = 0, c = 0;
  while (lines && std::fscanf(lines, "%lf %lf", &r, &c) == 2) {
    request.values.push_back(r);
    complete.values.push_back(c);
  }
  if (lines) std::fclose(lines);
  if (reap(child) != 0 || request.values.size() != static_cast<size_t>(count)) die("the warm client failed");
}

// A signed copy of the client padded to about `size` bytes: the loader ignores what follows the
// ELF image, the signature covers it all.
std::string paddedClient(const std::string& client, const std::string& directory, size_t size,
                         const LDSigningIdentity& identity) {
  const std::string path = directory + "/client-" + std::to_string(size >> 20) + "MiB";
  std::ifstream input(client, std::ios::binary);
  std::ostringstream bytes;
  bytes << input.rdbuf();
  std::string image = bytes.str();
  const LDSignatureLocation location = LDLocateSignature(
      image.size(), std::string_view(image).substr(image.size() - std::min(image.size(), LDSignatureTrailerSize)));
  if (location.status == 0) image.resize(location.codeSize);
  if (image.size() < size) image.resize(size, '\x5a');
  {
    std::ofstream output(path, std::ios::binary | std::ios::trunc);
    output << image;
  }
  // Installed as the client is: root, set-group-ID to its group.
  struct stat installed {};
  if (::stat(client.c_str(), &installed) != 0 || ::chown(path.c_str(), 0, installed.st_gid) != 0 ||
      ::chmod(path.c_str(), installed.st_mode & 07777) != 0) {
    die("cannot install " + path);
  }
  std::string error;
  if (!LDSignFile(path, LD_APP_IDENTIFIER, identity, &error)) die(error);
  return path;
}

double verifySeconds(const std::string& path, int rounds) {
  const std::string requirement = "identifier \"" + std::string(LD_APP_IDENTIFIER) + "\" and anchor apple generic";
  std::unique_ptr<LDRequirement> compiled;
  LDRequirementCreateWithString(requirement, &compiled);
  double best = 1e9;
  for (int i = 0; i < rounds; ++i) {
    const int64_t start = now();
    LDFileHandle file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string detail;
    if (LDCheckSignatureOfDescriptor(file.fileDescriptor(), compiled.get(), LDTrustAnchors::compiledIn(), &detail) != 0) {
      die("verification failed: " + detail);
    }
    best = std::min(best, static_cast<double>(now() - start) / 1e9);
  }
  return best;
}

double opensslSeconds(const std::string& path, int rounds) {
  double best = 1e9;
  const std::string command = "openssl dgst -sha256 '" + path + "' > /dev/null";
  for (int i = 0; i < rounds; ++i) {
    const int64_t start = now();
    if (std::system(command.c_str()) != 0) die("openssl dgst failed");
    best = std::min(best, static_cast<double>(now() - start) / 1e9);
  }
  return best;
}

class NoAcceptConn final : public LDSystemCalls {
 public:
  LDSystemCallResult getsockopt(int fd, int level, int name, void* value, socklen_t* length) override {
    if (level == SOL_SOCKET && name == SO_ACCEPTCONN) return {-1, ENOPROTOOPT};
    return LDSystemCalls::getsockopt(fd, level, name, value, length);
  }
};

// Microseconds per validated descriptor, on the SO_ACCEPTCONN path and on the probe path.
std::pair<double, double> validationCost() {
  auto listeners = LDLoopbackListeners::initWithPort(8080);
  if (!listeners) die("no listeners on 8080");
  const LDListenerEndpoint endpoint(AF_INET, "127.0.0.1", 8080);
  NoAcceptConn probe;
  constexpr int kRounds = 2000;
  int64_t start = now();
  for (int i = 0; i < kRounds; ++i) {
    if (!LDLoopbackListeners::validateReceivedFileDescriptor(listeners->ipv4FileDescriptor(), endpoint)) die("validation");
  }
  const double direct = static_cast<double>(now() - start) / 1000.0 / kRounds;
  start = now();
  for (int i = 0; i < kRounds; ++i) {
    if (!LDLoopbackListeners::validateReceivedFileDescriptor(listeners->ipv4FileDescriptor(), endpoint, nullptr, probe)) {
      die("probe validation");
    }
  }
  const double probed = static_cast<double>(now() - start) / 1000.0 / kRounds;
  return {direct, probed};
}

// Median microseconds to spawn argv and see it exit, run as uid (or as root when -1).
double spawnToExit(const std::vector<std::string>& argv, int uid, int rounds) {
  Stats stats;
  for (int i = 0; i < rounds; ++i) {
    const int64_t start = now();
    const pid_t child = ::fork();
    if (child == 0) {
      const int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, 1);
      ::dup2(null, 2);
      const auto id = static_cast<uid_t>(uid);
      if (uid >= 0 && (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(id, id, id) != 0)) ::_exit(126);
      std::vector<char*> arguments;
      for (const std::string& word : argv) arguments.push_back(const_cast<char*>(word.c_str()));
      arguments.push_back(nullptr);
      ::execv(arguments[0], arguments.data());
      ::_exit(127);
    }
    (void)reap(child);
    stats.values.push_back(static_cast<double>(now() - start) / 1000.0);
  }
  return stats.median();
}

long fileSize(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? static_cast<long>(status.st_size) : -1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--warm") {
    for (int i = std::atoi(argv[3]); i > 0 && std::getchar() != EOF; --i) warmClientRound(argv[2]);
    return 0;
  }
  if (argc < 6) die("usage: handoff_bench HELPER CLIENT FLOOR WORKDIR OUTPUT.json [TRANSFERS]");
  const std::string helper = argv[1], client = argv[2], floor = argv[3], work = argv[4], output = argv[5];
  const int transfers = argc > 6 ? std::atoi(argv[6]) : 200;
  const bool coldOnly = argc > 7 && std::string(argv[7]) == "--cold-only";
  bringLoopbackUp();
  std::string error;
  const auto identity = LDLoadSigningIdentity(LD_SIGNING_KEY, LD_SIGNING_CERT, LD_SIGNING_CHAIN, &error);
  if (!identity) die(error);

  privateRecordDirectory();
  struct BySize {
    size_t mebibytes;
    Stats cold, cached;
    double verify = 0, openssl = 0;
  };
  std::vector<BySize> sizes = {{1, {}, {}}, {16, {}, {}}, {128, {}, {}}};
  std::vector<std::string> padded;  // made now, so that their times lie far enough back when they are used
  if (!coldOnly) {
    for (const BySize& row : sizes) padded.push_back(paddedClient(client, work, row.mebibytes << 20, *identity));
  }

  const std::string socketPath = work + "/helper.sock";
  LDFileHandle listening = ldbench::listenAt(socketPath, 16);
  long rss = 0, peakRss = 0;
  const auto transfer = [&](const std::string& program, Stats& stats) {
    stats.values.push_back(coldTransfer(helper, program, listening.fileDescriptor(), socketPath, &rss));
    peakRss = std::max(peakRss, rss);
  };
  // A first transfer, with no record of the client, and then a recorded one.
  const auto coldPair = [&](const std::string& program, Stats& first, Stats& recorded) {
    forgetRecords();
    transfer(program, first);
    if (recordCount() != 1) die("the helper made no record of " + program);
    transfer(program, recorded);
  };
  Stats cold, cached, floorStats, warmRequest, warmComplete, warmUp;
  waitUntilRecordable(client);
  for (int i = 0; i < 5; ++i) coldPair(client, warmUp, warmUp);
  for (int i = 0; i < transfers; ++i) {
    coldPair(client, cold, cached);
    floorStats.values.push_back(floorTransfer(floor));
  }
  if (coldOnly) {
    std::printf("cold transfer median %.0f us, p99 %.0f us; recorded %.0f us, p99 %.0f us; floor median %.0f us; "
                "helper peak RSS %ld KiB\n",
                cold.median(), cold.p99(), cached.median(), cached.p99(), floorStats.median(), peakRss);
    return 0;
  }
  for (size_t s = 0; s < sizes.size(); ++s) {
    waitUntilRecordable(padded[s]);
    for (int i = 0, rounds = sizes[s].mebibytes >= 128 ? 10 : 30; i < rounds; ++i) {
      forgetRecords();
      transfer(padded[s], sizes[s].cold);
    }
    sizes[s].verify = verifySeconds(padded[s], 5);
    sizes[s].openssl = opensslSeconds(padded[s], 5);
  }
  // Recorded transfers of every size in turn, so that whatever else the machine does meanwhile
  // weighs on all sizes alike (the ratio of the largest to the smallest is a target).
  Stats unmeasured;
  forgetRecords();
  for (const std::string& program : padded) transfer(program, unmeasured);
  if (recordCount() != padded.size()) die("the helper did not record every padded client");
  for (int i = 0; i < 30; ++i) {
    for (size_t s = 0; s < sizes.size(); ++s) transfer(padded[s], sizes[s].cached);
  }
  listening.reset();
  warmRoundTrips(helper, work, std::min(transfers, 100), warmRequest, warmComplete);
  const auto [validateDirect, validateProbe] = validationCost();

  // Where a cold transfer goes: the helper's own start (as nobody it stops at its first check),
  // and a signature check in a fresh process, which pays libcrypto's first-use set-up.
  const double helperStart = spawnToExit({helper}, 65534, 200);
  const std::string codesign = helper.substr(0, helper.rfind('/')) + "/ld-codesign";
  const std::string root = std::string(LD_SIGNING_CERT).substr(0, std::string(LD_SIGNING_CERT).rfind('/')) + "/root.pem";
  const double freshVerify = spawnToExit({codesign, "verify", "--anchor", root, "--requirement", "anchor apple generic", client}, -1, 200);
  const double trueStart = spawnToExit({"/bin/true"}, -1, 200);

  std::printf("\n%-44s %12s %12s\n", "measurement", "median", "p99");
  std::printf("%-44s %9.0f us %9.0f us\n", ("cold transfer, client " + std::to_string(fileSize(client) >> 10) + " KiB").c_str(),
              cold.median(), cold.p99());
  std::printf("%-44s %9.0f us %9.0f us\n", "floor (static bind + pass, fork+exec)", floorStats.median(), floorStats.p99());
  std::printf("%-44s %12.2f\n", "cold / floor (median)", cold.median() / floorStats.median());
  std::printf("%-44s %9.0f us %9.0f us\n", "cold transfer, recorded client", cached.median(), cached.p99());
  std::printf("%-44s %12.2f\n", "recorded cold / floor (median)", cached.median() / floorStats.median());
  std::printf("%-44s %9.0f us %9.0f us\n", "warm request -> reply (open connection)", warmRequest.median(), warmRequest.p99());
  std::printf("%-44s %9.0f us %9.0f us\n", "warm complete -> reply", warmComplete.median(), warmComplete.p99());
  std::printf("%-44s %9.0f us\n", "  helper start alone (exits at first check)", helperStart);
  std::printf("%-44s %9.0f us\n", "  fresh process: start + one signature check", freshVerify);
  std::printf("%-44s %9.0f us\n", "  /bin/true, for scale", trueStart);
  std::printf("\n%-12s %14s %14s %14s %14s %10s\n", "client size", "cold median", "recorded", "verify", "openssl dgst",
              "ratio");
  for (const BySize& row : sizes) {
    std::printf("%8zu MiB %11.0f us %11.0f us %11.1f ms %11.1f ms %10.2f\n", row.mebibytes, row.cold.median(),
                row.cached.median(), row.verify * 1000, row.openssl * 1000, row.openssl / row.verify);
  }
  std::printf("%-44s %12.2f\n", "recorded cold, 128 MiB / 1 MiB client", sizes[2].cached.median() / sizes[0].cached.median());
  std::printf("\n%-44s %9ld KiB\n", "helper peak RSS", peakRss);
  std::printf("%-44s %9ld KiB\n", "helper binary", fileSize(helper) >> 10);
  std::printf("%-44s %9ld KiB\n", "client binary", fileSize(client) >> 10);
  std::printf("%-44s %9.1f us\n", "validation per descriptor, SO_ACCEPTCONN", validateDirect);
  std::printf("%-44s %9.1f us\n", "validation per descriptor, probe", validateProbe);

  std::ofstream json(output);
  json << "{\n  \"transfers\": " << transfers << ",\n"
       << "  \"cold_median_us\": " << cold.median() << ", \"cold_p99_us\": " << cold.p99() << ",\n"
       << "  \"floor_median_us\": " << floorStats.median() << ", \"floor_p99_us\": " << floorStats.p99() << ",\n"
       << "  \"cold_over_floor\": " << cold.median() / floorStats.median() << ",\n"
       << "  \"cold_cached_median_us\": " << cached.median() << ", \"cold_cached_p99_us\": " << cached.p99() << ",\n"
       << "  \"cold_cached_over_floor\": " << cached.median() / floorStats.median() << ",\n"
       << "  \"warm_request_median_us\": " << warmRequest.median() << ", \"warm_request_p99_us\": " << warmRequest.p99() << ",\n"
       << "  \"warm_complete_median_us\": " << warmComplete.median() << ",\n"
       << "  \"helper_start_us\": " << helperStart << ", \"fresh_signature_check_us\": " << freshVerify
       << ", \"true_start_us\": " << trueStart << ",\n"
       << "  \"by_client_size\": [";
  for (size_t i = 0; i < sizes.size(); ++i) {
    json << (i ? ", " : "") << "{\"mib\": " << sizes[i].mebibytes << ", \"cold_median_us\": " << sizes[i].cold.median()
         << ", \"cold_cached_median_us\": " << sizes[i].cached.median()
         << ", \"verify_s\": " << sizes[i].verify << ", \"openssl_s\": " << sizes[i].openssl
         << ", \"openssl_over_verify\": " << sizes[i].openssl / sizes[i].verify << "}";
  }
  json << "],\n  \"helper_peak_rss_kib\": " << peakRss << ",\n"
       << "  \"helper_binary_bytes\": " << fileSize(helper) << ", \"client_binary_bytes\": " << fileSize(client) << ",\n"
       << "  \"validation_acceptconn_us\": " << validateDirect << ", \"validation_probe_us\": " << validateProbe << "\n}\n";
  std::printf("\nwritten %s\n", output.c_str());
  return 0;
}
