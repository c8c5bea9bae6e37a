#include "client/self_admission.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/process_inspection.h"

namespace {

std::string installAdvice(const std::string& executable) {
  const std::string group = executable.substr(executable.rfind('/') + 1);
  return "As root: groupadd --system " + group + " && chown root:" + group + " " + executable +
         " && chmod 2755 " + executable + ". Give that group no members.";
}

// The checks in the order that names the cause rather than a consequence: on a nosuid mount,
// for one, set-group-ID has no effect, and that is what the user must hear about.
std::optional<std::string> executableProblem(int self, const LDExecutableFile& file, const std::string& path,
                                             bool requireSecureExecution) {
  const std::optional<LDMount> mount = LDFindMount(self, file.mountId);
  if (!mount) {
    return "The mount that holds " + path + " is not in this process's mount table (/proc/self/mountinfo), "
           "so the helper cannot tell what file system serves it. This happens in a chroot whose root "
           "is not a mount point: make it one (mount --bind DIR DIR) before entering it.";
  }
  if (!LDIsLocalFileSystem(mount->fileSystemType)) {
    return path + " lies on a " + mount->fileSystemType + " file system, which a user-space or network server "
           "controls. Install it on a local file system (such as /usr).";
  }
  if (mount->noSetId) {
    return path + " lies on a file system mounted nosuid, where set-group-ID has no effect. Install it on a "
           "file system mounted without nosuid (such as /usr).";
  }
  if (makedev(mount->major, mount->minor) != file.device) {
    return "The mount table names another device than the one that holds " + path +
           " (as btrfs subvolumes and some overlays do), so the helper cannot tell what serves it. Install it "
           "on a plain local file system (such as /usr).";
  }
  if (!S_ISREG(file.mode) || file.owner != 0 || (file.mode & (S_IWGRP | S_IWOTH)) != 0) {
    return path + " must be a regular file owned by root and not writable by group or others. " +
           (requireSecureExecution ? installAdvice(path) : "As root: chown root " + path + " && chmod go-w " + path + ".");
  }
  if (requireSecureExecution && ((file.mode & S_ISGID) == 0 || (file.mode & S_IXGRP) == 0)) {
    return "This program must be installed set-group-ID to a group of its own before it can receive the "
           "listeners. " + installAdvice(path);
  }
  return std::nullopt;
}

// Set-group-ID took effect (AT_SECURE), and only through the executable's group.
std::optional<std::string> groupProblem(int self, gid_t group, const std::string& path) {
  const std::optional<LDProcessGroups> groups = LDReadProcessGroups(self);
  if (!groups) return std::string("This process's groups cannot be read from /proc/self/status.");
  // The kernel grants no secure execution when the group changes nothing: say why, not that.
  if (groups->real == group) {
    return path + "'s group (gid " + std::to_string(group) + ") is the primary group of the user running it, so "
           "set-group-ID changes nothing. Give the program a group of its own. " + installAdvice(path);
  }
  // Not LDReadSecureExecution: a set-group-ID process is not dumpable, so the kernel makes its
  // own /proc/self/auxv root's, mode 0400, and the process cannot read it. The loader's copy is
  // the same vector.
  if (::getauxval(AT_SECURE) == 0) {
    return path + " is set-group-ID, yet it was not started in secure-execution mode: something cancelled "
           "set-group-ID (no-new-privileges, a debugger, a sandbox). Start it directly.";
  }
  if (groups->effective != group || groups->saved != group || groups->fileSystem != group) {
    return "This process does not run with the group of " + path + " (effective gid " +
           std::to_string(groups->effective) + ", saved gid " + std::to_string(groups->saved) +
           "): it gave the group up, or something changed it, before asking for the listeners.";
  }
  if (std::find(groups->supplementary.begin(), groups->supplementary.end(), group) != groups->supplementary.end()) {
    return "The user running this program is a member of " + path + "'s group (gid " + std::to_string(group) +
           "), so set-group-ID protects nothing. That group must have no members: remove the user from it.";
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> LDSelfAdmissionProblem(bool requireSecureExecution) {
  const LDFileHandle self(::open("/proc/self", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!self.isValid()) {
    return "This process cannot open /proc/self (" + std::string(std::strerror(errno)) +
           "), so it cannot check itself, and the helper could not check it either.";
  }
  if (!LDSharesInitialUserNamespace(self.fileDescriptor())) {
    return std::string("This program runs in a user namespace of its own (a container or sandbox), where the "
                       "helper cannot trust what the kernel reports of it. Run it outside that namespace.");
  }
  std::optional<LDExecutableFile> file = LDOpenExecutable(self.fileDescriptor());
  if (!file) return std::string("This program's executable cannot be found (/proc/self/exe).");
  file->path.reset();  // what statx said is all that is needed: keep the check to two descriptors
  char link[4096];
  const ssize_t length = ::readlink("/proc/self/exe", link, sizeof link - 1);
  const std::string path = length > 0 ? std::string(link, static_cast<size_t>(length)) : "/path/to/application";
  if (auto problem = executableProblem(self.fileDescriptor(), *file, path, requireSecureExecution)) return problem;
  return requireSecureExecution ? groupProblem(self.fileDescriptor(), file->group, path) : std::nullopt;
}
