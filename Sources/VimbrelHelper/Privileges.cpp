// SPDX-License-Identifier: Apache-2.0
#include "Privileges.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vimbrel {

bool dropPrivileges() {
  // As root the bounding set can be emptied; without CAP_SETPCAP there is nothing to be gained from it.
  for (int capability = 0; ::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability) {
    (void)::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
  }
  (void)::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
  if (::syscall(SYS_capset, &header, none) != 0) return false;
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  const rlimit noCore{0, 0};
  return ::setrlimit(RLIMIT_CORE, &noCore) == 0;
}

}  // namespace vimbrel
