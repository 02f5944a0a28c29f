// Opens the component's library as a framework does, runs one case against it and exits 0 when all of it held.

#include <dlfcn.h>
#include <elf.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "VelaMgmtSpi.h"
#include "VelaMwSpiLog.h"
#include "VelaOamSpiManagedObject.h"

namespace {

int failures = 0;

void check(bool holds, const std::string& what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what.c_str());
  ++failures;
}

/** A framework that registers components, keeps log lines, and has a model whose lock is taken when a case says so. */
std::mutex linesMutex;
std::vector<std::string> lines;
std::vector<const VelaMgmtSpiComponent_1T*> components;

void writeLog(int32_t, const char*, const char*, const char* text) {
  const std::lock_guard<std::mutex> lock(linesMutex);
  lines.emplace_back(text);
}
const VelaMwSpiLog_1T logTable = {writeLog, [] { return static_cast<int32_t>(6); }};

std::atomic<int> transactions = 0;
std::atomic<bool> isModelLocked = false;

VelaReturnT beginTransaction(int32_t, uint32_t, VelaOamSpiMoTransactionT* transaction) {
  *transaction = static_cast<VelaOamSpiMoTransactionT>(++transactions);
  if (!isModelLocked) return VELA_OK;
  while (isModelLocked) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return VELA_TIMEOUT;
}
const VelaOamSpiManagedObject_3T modelTable = [] {
  VelaOamSpiManagedObject_3T table = {};
  table.beginTransaction = beginTransaction;
  table.abort = [](VelaOamSpiMoTransactionT) { return static_cast<VelaReturnT>(VELA_OK); };
  table.getErrorText = [] { return "locked"; };
  table.getFirstInstance = [](VelaOamSpiMoTransactionT, const char*, const char** dn) {
    *dn = "ManagedElement=1";
    return static_cast<VelaReturnT>(VELA_OK);
  };
  return table;
}();

VelaReturnT getInterface(const char*, const char* name, const char*, void** interface) {
  if (!name) return VELA_NOT_FOUND;
  if (std::strcmp(name, VELA_LOG_INTERFACE) == 0) {
    *interface = const_cast<VelaMwSpiLog_1T*>(&logTable);
  } else if (std::strcmp(name, VELA_MO_INTERFACE) == 0) {
    *interface = const_cast<VelaOamSpiManagedObject_3T*>(&modelTable);
  } else {
    return VELA_NOT_FOUND;
  }
  return VELA_OK;
}
VelaReturnT registerComponent(const VelaMgmtSpiComponent_1T* component) {
  components.push_back(component);
  return VELA_OK;
}
VelaReturnT unregisterComponent(const VelaMgmtSpiComponent_1T* component) {
  return std::erase(components, component) > 0 ? VELA_OK : VELA_NOT_FOUND;
}
VelaMgmtSpiInterfacePortal_1T portal = {[] { return "1"; },
                                        [] { return "load"; },
                                        [] { return "/"; },
                                        getInterface,
                                        [](void*) { return static_cast<VelaReturnT>(VELA_OK); },
                                        registerComponent,
                                        unregisterComponent};
const VelaMgmtSpiInterfacePortalAccessor accessor = {
    [](const char* version) { return std::strcmp(version, "1") == 0 ? &portal : nullptr; }};

bool isLogged(const std::string& text) {
  const std::lock_guard<std::mutex> lock(linesMutex);
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return condition();
}

/** A file of an empty component configuration, for as long as it lives. */
class EmptyConfiguration {
 public:
  EmptyConfiguration() {
    const std::string text = "<VelaFmSnmp/>";
    const int fd = mkstemp(_name);
    check(write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
    close(fd);
  }
  ~EmptyConfiguration() { unlink(_name); }
  EmptyConfiguration(const EmptyConfiguration&) = delete;
  EmptyConfiguration& operator=(const EmptyConfiguration&) = delete;
  const char* getName() const { return _name; }

 private:
  char _name[32] = "/tmp/load_component_XXXXXX";
};

template <class T>
T at(const std::vector<char>& file, std::size_t offset) {
  T value = {};
  if (offset + sizeof value <= file.size()) std::memcpy(&value, file.data() + offset, sizeof value);
  return value;
}

/** Names of the symbols that a library defines for others. */
std::set<std::string> exportsOf(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  const std::vector<char> file{std::istreambuf_iterator<char>(stream), {}};
  const auto header = at<Elf64_Ehdr>(file, 0);
  std::set<std::string> names;
  for (unsigned i = 0; i < header.e_shnum; ++i) {
    const auto section = at<Elf64_Shdr>(file, header.e_shoff + i * sizeof(Elf64_Shdr));
    if (section.sh_type != SHT_DYNSYM) continue;
    const auto strings = at<Elf64_Shdr>(file, header.e_shoff + section.sh_link * sizeof(Elf64_Shdr));
    for (std::uint64_t offset = 0; offset < section.sh_size; offset += sizeof(Elf64_Sym)) {
      const auto symbol = at<Elf64_Sym>(file, section.sh_offset + offset);
      if (symbol.st_shndx != SHN_UNDEF) names.insert(file.data() + strings.sh_offset + symbol.st_name);
    }
  }
  return names;
}

struct Library {
  explicit Library(const std::string& path) : handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (!handle) {
      std::fprintf(stderr, "%s\n", dlerror());
      std::exit(1);
    }
    init = reinterpret_cast<Init>(dlsym(handle, "velaLCMinit"));
    terminate = reinterpret_cast<Terminate>(dlsym(handle, "velaLCMterminate"));
    check(init && terminate, "both functions are there");
    if (failures > 0) std::exit(1);
  }
  using Init = VelaReturnT (*)(const VelaMgmtSpiInterfacePortalAccessor*, const char*);
  using Terminate = void (*)();
  void* handle;
  Init init = nullptr;
  Terminate terminate = nullptr;
};

void exports(const std::string& path) {
  check(exportsOf(path) == std::set<std::string>{"velaLCMinit", "velaLCMterminate"}, "nothing else is exported");
  Library library(path);
}

void terminateWithoutInit(const std::string& path) {
  // Without a portal the line goes to standard error.
  int ends[2];
  check(pipe(ends) == 0, "pipe");
  dup2(ends[1], 2);
  Library(path).terminate();
  std::fflush(stderr);
  char buffer[1000] = {};
  check(read(ends[0], buffer, sizeof buffer - 1) > 0, "a line is written");
  check(std::strstr(buffer, "Fm Snmp Component has not been initialized.") != nullptr, buffer);
  check(components.empty(), "nothing is registered");
}

void nullFileName(const std::string& path) {
  Library library(path);
  check(library.init(&accessor, nullptr) == -1, "init fails");
  check(isLogged("Exception caught during initialization of Fm Snmp Component: basic_string"), "the reason is logged");
  check(components.size() == 1, "the component is registered");
  library.terminate();
  check(components.empty(), "terminate unregisters it");
}

void badFile(const std::string& path) {
  Library library(path);
  check(library.init(&accessor, "/nowhere/configuration.xml") == -1, "init fails");
  check(isLogged("Failed to load components configuration! (") &&
            isLogged("Could not load the configuration for Fm Snmp Component."),
        "the reasons are logged");
  check(components.size() == 1, "the component is registered");
  check(components.front()->start(VelaStateChangeActivate) == -1, "it refuses to start");
  library.terminate();
  check(components.empty(), "terminate unregisters it");
}

void initTwice(const std::string& path) {
  const EmptyConfiguration configuration;
  Library library(path);
  check(library.init(&accessor, configuration.getName()) == 0, "init succeeds");
  check(library.init(&accessor, configuration.getName()) == 0, "and again");
  check(components.size() == 2 && components[0] == components[1], "it is one component");
  check(std::strcmp(components[0]->componentName, "VelaFmSnmp") == 0, "its name");
  check(components[0]->stop(VelaStateChangeDeactivate) == 0, "it stops without having been started");
  library.terminate();
  check(components.empty(), "terminate unregisters it");
}

/** The adaptor waits for the model when it is stopped, and goes on while the process exits. */
void leaveAThread(const std::string& path) {
  setenv("PATH", "/nonexistent", 1);
  // What the library destroys at the end was made after this, so it is gone by then.
  std::atexit([] {
    isModelLocked = false;
    const bool hasGoneOn = eventually([] { return isLogged("stopMasterAgent caught exception"); });
    if (!hasGoneOn) _exit(1);
  });
  const EmptyConfiguration configuration;
  Library library(path);
  check(library.init(&accessor, configuration.getName()) == 0, "init succeeds");
  check(components.front()->start(VelaStateChangeActivate) == 0, "it starts");
  isModelLocked = true;
  const int begun = transactions;
  check(eventually([&] { return transactions > begun; }), "the adaptor waits for the model");
  check(components.front()->stop(VelaStateChangeDeactivate) == 0, "it stops");
  check(isLogged("Timeout while waiting for snmpAdaptorThread"), "it does so without its thread");
  check(components.front()->start(VelaStateChangeActivate) == -1, "it does not start meanwhile");
  check(isLogged("the adaptor thread of the previous run has not ended"), "and says why");
  check(transactions == begun + 1, "nothing was touched");
  library.terminate();
  dlclose(library.handle);
}

}  // namespace

int main(int count, char** arguments) {
  const std::map<std::string, void (*)(const std::string&)> cases = {{"exports", exports},
                                                                     {"terminate_without_init", terminateWithoutInit},
                                                                     {"null_file_name", nullFileName},
                                                                     {"bad_file", badFile},
                                                                     {"init_twice", initTwice},
                                                                     {"leave_a_thread", leaveAThread}};
  if (count != 3 || cases.count(arguments[2]) == 0) {
    std::fprintf(stderr, "usage: load_component LIBRARY CASE\n");
    return 2;
  }
  cases.at(arguments[2])(arguments[1]);
  return failures == 0 ? 0 : 1;
}
