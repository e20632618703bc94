#include "agent/PidFile.h"

#include <unistd.h>

#include "foundation/string/OmFile.h"

PidFile::PidFile(const OmUniString& pidDirectory)
    : name(pidDirectory + "/quelmloadprobe.pid"), pid(static_cast<uint32_t>(getpid())) {
  // Digits only, no line feed; a failure is silent and leaves no file to remove.
  const OmUniString text = OmUniString::CreateFromUnsigned(pid);
  created = OmFile::WriteFile(name.AsUtf8().c_str(), text.AsEncoding(OmEncoding::UTF8));
}

PidFile::~PidFile() {
  if (created) unlink(name.AsUtf8().c_str());
}

bool PidFile::handTo(unsigned uid, unsigned gid) const {
  return created && chown(name.AsUtf8().c_str(), uid, gid) == 0;
}
