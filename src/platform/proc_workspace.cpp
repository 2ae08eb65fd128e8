// Running applications from the process folders.

#include "platform/proc_workspace.h"

#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <fstream>
#include <optional>
#include <system_error>

namespace tesselune {

namespace {

// Files under /proc are small; a bound keeps a strange one from costing much.
constexpr std::size_t kMaxProcFileBytes = 4096;

std::optional<std::string> readSmallFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text(kMaxProcFileBytes, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (in.bad()) return std::nullopt;
  text.resize(static_cast<std::size_t>(in.gcount()));
  return text;
}

std::optional<int> parsePid(std::string_view name) {
  int pid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
  if (error != std::errc() || end != name.data() + name.size() || pid <= 0) return std::nullopt;
  return pid;
}

// The state letter follows the command name in parentheses, which may itself hold ") ".
bool isZombie(const std::string& stat) {
  const std::size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z';
}

std::string executableFileName(const std::filesystem::path& link) {
  std::error_code error;
  const std::filesystem::path target = std::filesystem::read_symlink(link, error);
  if (error) return {};
  std::string name = target.filename().string();
  // The kernel marks an executable replaced or removed since the start.
  constexpr std::string_view kDeleted = " (deleted)";
  if (name.ends_with(kDeleted)) name.resize(name.size() - kDeleted.size());
  return name;
}

// The file name of the first NUL-terminated argument; kernel threads have none.
std::string firstArgumentFileName(const std::optional<std::string>& commandLine) {
  if (!commandLine || commandLine->empty()) return {};
  const std::string first = commandLine->substr(0, commandLine->find('\0'));
  return first.substr(first.rfind('/') + 1);
}

}  // namespace

ProcWorkspace::ProcWorkspace(std::filesystem::path procRoot) : procRoot_(std::move(procRoot)) {}

std::vector<ProcWorkspace::Process> ProcWorkspace::processes() const {
  std::vector<Process> found;
  std::error_code error;
  std::filesystem::directory_iterator it(procRoot_, error);
  if (error) return found;
  const uid_t user = ::getuid();
  for (; it != std::filesystem::directory_iterator(); it.increment(error)) {
    if (error) break;
    const std::filesystem::path folder = it->path();
    const std::optional<int> pid = parsePid(folder.filename().string());
    if (!pid) continue;
    struct stat info {};
    if (::stat(folder.c_str(), &info) != 0 || info.st_uid != user) continue;
    const std::optional<std::string> stat = readSmallFile(folder / "stat");
    if (stat && isZombie(*stat)) continue;
    Process process;
    process.pid = *pid;
    if (std::optional<std::string> comm = readSmallFile(folder / "comm")) {
      if (!comm->empty() && comm->back() == '\n') comm->pop_back();
      process.commandName = std::move(*comm);
    }
    process.executableName = executableFileName(folder / "exe");
    process.argumentName = firstArgumentFileName(readSmallFile(folder / "cmdline"));
    if (process.commandName.empty() && process.executableName.empty() && process.argumentName.empty())
      continue;  // gone meanwhile
    found.push_back(std::move(process));
  }
  return found;
}

bool ProcWorkspace::isApplicationRunning(std::string_view localizedName) {
  for (const Process& process : processes()) {
    if (process.answersTo(localizedName)) return true;
  }
  return false;
}

}  // namespace tesselune
