// The forms; see call_form.h.

#include "handset/links/call_form.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>

#include <algorithm>
#include <iterator>

namespace handset {

#ifdef SYS_unlink  // newer architectures have none of these
struct Form {
  int older;
  int common;
};

constexpr Form kForms[] = {
    {SYS_access, SYS_faccessat}, {SYS_unlink, SYS_unlinkat}, {SYS_rmdir, SYS_unlinkat},
    {SYS_mkdir, SYS_mkdirat},    {SYS_rename, SYS_renameat}, {SYS_chmod, SYS_fchmodat},
    {SYS_chown, SYS_fchownat},
};

void use_common_form(TrappedCall* call) {
  const auto form = std::find_if(std::begin(kForms), std::end(kForms),
                                 [call](const Form& one) { return one.older == call->number; });
  if (form == std::end(kForms)) {
    return;
  }
  const auto folder = static_cast<uint64_t>(AT_FDCWD);
  uint64_t* const arguments = call->arguments;
  std::copy_backward(arguments, arguments + 5, arguments + 6);
  arguments[0] = folder;
  if (form->common == SYS_unlinkat) {
    arguments[2] = call->number == SYS_rmdir ? AT_REMOVEDIR : 0;
  } else if (form->common == SYS_renameat) {
    arguments[3] = arguments[2];
    arguments[2] = folder;
  }
  call->number = form->common;
}
#else
void use_common_form(TrappedCall*) {}
#endif

bool makes_thread(const TrappedCall& call) {
  uint64_t flags = call.arguments[0];
  if (call.number == SYS_clone3) {
    call.read(call.arguments[0], &flags, sizeof(flags));  // the record's first field
  }
  return (flags & CLONE_THREAD) != 0;
}

}  // namespace handset
