#include "detached_work.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "close_from.h"

namespace os {

void work_detached(const std::function<void()>& work) {
  constexpr unsigned kFirstClosed = 3;
  const pid_t intermediate = fork();
  if (intermediate == 0) {
    const pid_t worker = fork();
    if (worker == 0) {
      close_from(kFirstClosed);
      work();
    }
    _exit(worker < 0 ? 1 : 0);
  }
  int status = 1;
  while (intermediate > 0 && waitpid(intermediate, &status, 0) < 0 && errno == EINTR) {
  }
  if (status != 0) {
    work();
  }
}

}  // namespace os
