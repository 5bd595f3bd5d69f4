#include "limid.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "common/paths.h"
#include "common/unique_fd.h"
#include "registry.h"

static_assert(sizeof(limid_t) == 4 && alignof(limid_t) == 2, "limid_t is part of records that are sent");

namespace {

using limid_impl::Registry;

/// The process's registry, opened on first use.
class Process final {
 public:
  /// Null when the registry cannot be opened.
  Registry* Open() {
    if (!registry_) {
      auto opened = Registry::Open(common::StateDir() + "/limid");
      if (!opened) {
        Report(opened.error());
        return nullptr;
      }
      registry_ = std::move(opened).value();
    }
    return registry_.get();
  }

  /// One line per process, however often the registry fails.
  void Report(const common::Error& error) {
    if (!std::exchange(reported_, true)) std::fprintf(stderr, "limid registry: %s\n", error.Text().c_str());
  }

  std::mutex mutex;

 private:
  std::unique_ptr<Registry> registry_;
  bool reported_ = false;
};

Process& TheProcess() {
  static auto* process = new Process;  // exit handlers may still convert ids
  return *process;
}

uint32_t ToNumber(limid_t limid) { return uint32_t{limid.word[0]} << 16 | limid.word[1]; }

limid_t ToLimid(uint32_t number) {
  return {{static_cast<uint16_t>(number >> 16), static_cast<uint16_t>(number & 0xffff)}};
}

/// In no interface's name: blanks, and what stands around names in paths of files and of the configuration.
constexpr bool IsForbidden(char c) {
  switch (c) {
    case ' ':
    case '\t':
    case '\n':
    case '\v':
    case '\f':
    case '\r':
    case '"':
    case '\'':
    case '{':
    case '}':
    case '[':
    case ']':
    case '/':
    case '\\':
    case '%':
      return true;
    default:
      return false;
  }
}

/// Whether the kernel, and the configuration, would take it for an interface's name.
bool IsInterfaceName(std::string_view name) {
  if (name.empty() || name.size() >= IFNAMSIZ || name == "." || name == "..") return false;
  for (const char c : name) {
    if (IsForbidden(c)) return false;
  }
  return true;
}

std::optional<std::string> NameOf(limid_t limid) {
  if (ToNumber(limid) == 0) return std::nullopt;
  Process& process = TheProcess();
  const std::lock_guard lock{process.mutex};
  Registry* registry = process.Open();
  if (registry == nullptr) return std::nullopt;
  const auto name = registry->Name(ToNumber(limid));
  if (!name) process.Report(name.error());
  return name ? name.value() : std::nullopt;
}

/// The type of the interface in this network namespace. One that is absent may become a port.
limid_type_t TypeOf(const std::string& name) {
  const common::UniqueFd socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  ifreq request{};
  name.copy(request.ifr_name, sizeof request.ifr_name - 1);
  if (!socket || ::ioctl(socket.get(), SIOCGIFFLAGS, &request) != 0) return limid_type_serviceport;
  const auto flags = static_cast<unsigned short>(request.ifr_flags);
  if ((flags & IFF_LOOPBACK) != 0) return limid_type_loopback;
  if ((flags & IFF_POINTOPOINT) != 0) return limid_type_point_to_point;
  if (::ioctl(socket.get(), SIOCGIFHWADDR, &request) != 0) return limid_type_serviceport;
  return request.ifr_hwaddr.sa_family == ARPHRD_ETHER ? limid_type_serviceport : limid_type_none;
}

}  // namespace

int limid_from_intfname(limid_t* limid, const char* name) {
  if (limid == nullptr) return -1;
  *limid = {};
  if (name == nullptr || !IsInterfaceName(name)) return -1;
  Process& process = TheProcess();
  const std::lock_guard lock{process.mutex};
  Registry* registry = process.Open();
  if (registry == nullptr) return -1;
  const auto number = registry->Intern(name);
  if (!number) {
    process.Report(number.error());
    return -1;
  }
  *limid = ToLimid(number.value());
  return 0;
}

int limid_from_ifindex(limid_t* limid, uint32_t ifindex) {
  if (limid == nullptr) return -1;
  *limid = {};
  if (ifindex == 0) return 0;
  std::array<char, IF_NAMESIZE> name{};
  if (::if_indextoname(ifindex, name.data()) == nullptr) return -1;
  return limid_from_intfname(limid, name.data());
}

int limid_to_intfname(limid_t limid, char* name, size_t size) {
  if (name == nullptr || size == 0) return -1;
  name[0] = '\0';
  const auto found = NameOf(limid);
  if (!found || found->size() >= size) return -1;
  std::memcpy(name, found->c_str(), found->size() + 1);
  return 0;
}

int limid_to_type(limid_t limid, limid_type_t* type) {
  if (type == nullptr) return -1;
  const auto name = NameOf(limid);
  if (!name) return -1;
  *type = TypeOf(*name);
  return 0;
}

int limid_type_compare(limid_type_t a, limid_type_t b) { return static_cast<int>(a) - static_cast<int>(b); }

int limid_is_from_type(limid_t limid, limid_type_t type) {
  limid_type_t actual = limid_type_none;
  return limid_to_type(limid, &actual) == 0 && actual == type ? 1 : 0;
}

int limid_compare(limid_t a, limid_t b) {
  if (ToNumber(a) == ToNumber(b)) return 0;
  return ToNumber(a) < ToNumber(b) ? -1 : 1;
}
