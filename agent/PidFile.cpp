#include "agent/PidFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "agent/Messages.h"
#include "foundation/string/OmFile.h"

namespace {

// The pid folder may be world-writable (/tmp): a link or a file planted there
// by another user must not make the probe, started as root, overwrite or
// give away a file it points at. Such a file is reported and left alone.
int openOwn(const OmUniString& name, int flags) {
  std::string why;
  const int fd = OmFile::OpenOwnFile(name.AsUtf8().c_str(), flags, 0644, why);
  if (fd < 0 && !why.empty()) LogUnsafeFile(name, OmUniString::FromUtf8(why));
  return fd;
}

}  // namespace

PidFile::PidFile(const OmUniString& pidDirectory)
    : name(pidDirectory + "/quelmloadprobe.pid"), pid(static_cast<uint32_t>(getpid())), created(false) {
  // Digits only, no line feed; a failure leaves no file to remove.
  const std::string text = std::to_string(pid);
  OmFile file;
  file.SetFd(openOwn(name, O_WRONLY | O_CREAT));
  if (file.Fd() < 0 || ftruncate(file.Fd(), 0) != 0) return;
  created = write(file.Fd(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
  created = file.Close() && created;
}

PidFile::~PidFile() {
  if (created) unlink(name.AsUtf8().c_str());
}

bool PidFile::handTo(unsigned uid, unsigned gid) const {
  if (!created) return false;
  OmFile file;
  file.SetFd(openOwn(name, O_RDONLY));
  return file.Fd() >= 0 && fchown(file.Fd(), uid, gid) == 0;
}
