#include "output_file.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace quillon::tool {

namespace {

// Temporary files open in this process, for the signal handler to remove.
// A slot is 0 (free), 1 (being filled) or 2 (holds a path).
constexpr int kSlots = 320;
std::atomic<int> g_slotState[kSlots];
char g_slotPath[kSlots][PATH_MAX];
volatile sig_atomic_t g_signal = 0;
bool g_deferred = false;
std::atomic<unsigned> g_counter{0};

int registerTemporary(const std::string& path) {
  if (path.size() >= PATH_MAX) return -1;
  for (int i = 0; i < kSlots; i++) {
    int expected = 0;
    if (!g_slotState[i].compare_exchange_strong(expected, 1)) continue;
    std::memcpy(g_slotPath[i], path.c_str(), path.size() + 1);
    g_slotState[i].store(2);
    return i;
  }
  return -1;
}

void unregisterTemporary(int& slot) {
  if (slot >= 0) g_slotState[slot].store(0);
  slot = -1;
}

extern "C" void onInterrupt(int signal) {
  if (g_deferred && g_signal == 0) {
    g_signal = signal;
    return;
  }
  for (int i = 0; i < kSlots; i++)
    if (g_slotState[i].load() == 2) ::unlink(g_slotPath[i]);
  ::_exit(128 + signal);
}

std::string describe(const std::string& path) { return path == "-" ? std::string("standard input") : path; }

bool sameFileAsInput(const FileIdentity& out, const std::vector<std::string>& inputs, std::string& which) {
  for (const std::string& input : inputs) {
    FileIdentity in;
    if (identifyFile(input, in) && in == out) {
      which = describe(input);
      return true;
    }
  }
  return false;
}

}  // namespace

bool identifyFile(const std::string& path, FileIdentity& identity) {
  struct stat st;
  if ((path == "-" ? ::fstat(STDIN_FILENO, &st) : ::stat(path.c_str(), &st)) != 0) return false;
  identity.device = st.st_dev;
  identity.inode = st.st_ino;
  return true;
}

bool inputIsFolder(const std::string& path, std::string& error) {
  struct stat st;
  if (path == "-" || ::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  error = path + " is a folder, not a file ('quillon batch' converts folders)";
  return true;
}

SafeOutput::~SafeOutput() { abandon(); }

SafeOutput::Status SafeOutput::open(const std::string& path, const OutputRules& rules,
                                    const std::vector<std::string>& inputs, std::string& error) {
  abandon();
  m_path = m_name = path;
  m_replace = rules.replace;
  m_direct = m_ownsStream = false;
  std::string input;
  if (path == "-") {
    m_name = "standard output";
    struct stat st;
    FileIdentity out;
    // Appending to a file that is being read would read back what is written.
    if (::fstat(STDOUT_FILENO, &st) == 0 && S_ISREG(st.st_mode)) {
      out.device = st.st_dev;
      out.inode = st.st_ino;
      if (sameFileAsInput(out, inputs, input)) {
        error = "standard output is the input file " + input;
        return Status::Refused;
      }
    }
    m_direct = true;
    m_stream = stdout;
    return Status::Ok;
  }
  if (path.empty()) {
    error = "the output name is empty";
    return Status::Refused;
  }
  struct stat own;
  if (::lstat(path.c_str(), &own) == 0) {
    const bool link = S_ISLNK(own.st_mode);
    if (link && !rules.followLinks) {
      // The link itself is replaced by the rename, never followed.
      if (!rules.replace) {
        error = path + " exists as a symbolic link";
        return Status::Refused;
      }
    } else {
      struct stat st;
      if (::stat(path.c_str(), &st) != 0) {
        error = path + " is a symbolic link to nothing";
        return Status::Refused;
      }
      if (S_ISDIR(st.st_mode)) {
        error = path + " is a folder; give a file name for the output";
        return Status::Refused;
      }
      FileIdentity out{st.st_dev, st.st_ino};
      if (sameFileAsInput(out, inputs, input)) {
        error = input == path ? "the output " + path + " is the input file"
                              : "the output " + path + " is the input file " + input + " (through a link)";
        return Status::Refused;
      }
      if (!S_ISREG(st.st_mode)) {
        // A device, FIFO or socket (/dev/null, /dev/stdout to a pipe) is
        // written as it is: renaming over it would replace the node.
        if (!rules.followLinks) {
          error = path + " is not a regular file";
          return Status::Refused;
        }
        const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
        m_stream = fd >= 0 ? ::fdopen(fd, "wb") : nullptr;
        if (!m_stream) {
          error = "cannot open " + path + ": " + std::strerror(errno);
          if (fd >= 0) ::close(fd);
          return Status::Failed;
        }
        m_direct = m_ownsStream = true;
        return Status::Ok;
      }
      if (!rules.replace) {
        error = path + " exists";
        return Status::Refused;
      }
      if (link) {
        // Written where the link points, which keeps the link.
        char* real = ::realpath(path.c_str(), nullptr);
        if (!real) {
          error = "cannot follow the link " + path + ": " + std::strerror(errno);
          return Status::Failed;
        }
        m_path = real;
        std::free(real);
      }
    }
  }
  // A name no other process or job uses; O_EXCL never opens an existing
  // file or follows a link planted under that name.
  // The name is registered before the file exists, so that a signal
  // arriving at any moment finds it.
  for (int attempt = 0;; attempt++) {
    m_temp = m_path + "." + std::to_string(::getpid()) + "-" + std::to_string(g_counter++) + ".part";
    m_slot = registerTemporary(m_temp);
    const int fd = ::open(m_temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
      m_stream = ::fdopen(fd, "wb");
      if (m_stream) return Status::Ok;
      error = "cannot create " + m_temp + ": " + std::strerror(errno);
      ::close(fd);
      abandon();
      return Status::Failed;
    }
    const int openError = errno;
    unregisterTemporary(m_slot);  // the existing file is not ours to remove
    if (openError == EEXIST && attempt < 100) continue;
    error = "cannot create " + m_temp + ": " + std::strerror(openError);
    m_temp.clear();
    return Status::Failed;
  }
}

bool SafeOutput::commit(std::string& error) {
  if (!m_stream) {
    error = "no output is open";
    return false;
  }
  if (m_direct) {
    bool ok = std::fflush(m_stream) == 0 && !std::ferror(m_stream);
    if (m_ownsStream && std::fclose(m_stream) != 0) ok = false;
    m_stream = nullptr;
    if (!ok) error = "cannot write " + m_name + ": " + std::strerror(errno);
    return ok;
  }
  bool ok = std::fflush(m_stream) == 0 && !std::ferror(m_stream) && ::fsync(::fileno(m_stream)) == 0;
  if (std::fclose(m_stream) != 0) ok = false;
  m_stream = nullptr;
  if (!ok) {
    error = "cannot write " + m_path + ": " + std::strerror(errno);
    abandon();
    return false;
  }
  int renamed;
  if (m_replace) {
    renamed = ::rename(m_temp.c_str(), m_path.c_str());
  } else {
    renamed = ::renameat2(AT_FDCWD, m_temp.c_str(), AT_FDCWD, m_path.c_str(), RENAME_NOREPLACE);
    if (renamed != 0 && (errno == EINVAL || errno == ENOSYS)) {
      // The file system cannot rename without replacing: a hard link cannot replace either.
      renamed = ::link(m_temp.c_str(), m_path.c_str());
      if (renamed == 0) ::unlink(m_temp.c_str());
    }
  }
  if (renamed != 0) {
    error = errno == EEXIST ? m_path + " appeared while it was written; it was left as it is"
                            : "cannot rename " + m_temp + " to " + m_path + ": " + std::strerror(errno);
    abandon();
    return false;
  }
  unregisterTemporary(m_slot);
  m_temp.clear();
  return true;
}

void SafeOutput::abandon() {
  if (m_direct) {
    if (m_stream && m_ownsStream) std::fclose(m_stream);
    m_stream = nullptr;
    return;
  }
  if (m_stream) std::fclose(m_stream);
  m_stream = nullptr;
  if (!m_temp.empty()) ::unlink(m_temp.c_str());
  m_temp.clear();
  unregisterTemporary(m_slot);
}

void installInterruptHandlers(bool deferred) {
  g_deferred = deferred;
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

int interruptSignal() { return g_signal; }

}  // namespace quillon::tool
