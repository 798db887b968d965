#include "kx_buffer.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "kxbus.h"
#include "memory_room.h"

namespace kxbus {

using os::Descriptor;

namespace {

constexpr std::size_t kBlockSize = kLargestPayload + 1;
// What is worth a system call of its own, rather than being gathered in the block first.
constexpr std::size_t kStoredAtOnce = 16 * 1024;
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
static_assert(kBlockSize > 8 * 1024);

std::size_t page_size() {
  static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

int status_of_errno() {
  return errno == EMFILE || errno == ENFILE ? KX_IS_BUSY : KX_IO_FAILURE;
}

// What a peer sends must be memory that nobody can cut or change any more, or reading it could kill
// or mislead the reader.
int check_memfd(int memfd, std::size_t length) {
  struct stat about {};
  struct statfs system {};
  // First of all: the others ask the file's file system, which may be anybody's.
  const int seals = fcntl(memfd, F_GET_SEALS);
  const bool fits = seals >= 0 && (seals & kSeals) == kSeals && fstat(memfd, &about) == 0 &&
                    fstatfs(memfd, &system) == 0 && S_ISREG(about.st_mode) &&
                    system.f_type == TMPFS_MAGIC && about.st_size == static_cast<off_t>(length);
  return fits ? KX_SUCCESS : KX_IS_INVALID;
}

// Maps the content for reading, with a page of zeros behind it.
Mapping map_terminated(int memfd, std::size_t length) {
  const std::size_t pages = (length + page_size() - 1) / page_size() * page_size();
  void* base = mmap(nullptr, pages + page_size(), PROT_READ,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) {
    return {};
  }
  Mapping mapping(base, pages + page_size());
  if (mmap(base, length, PROT_READ, MAP_PRIVATE | MAP_FIXED, memfd, 0) == MAP_FAILED) {
    return {};
  }
  return mapping;
}

// The rest of the last page is the peer's as well, and outlives the seals.
bool clear_last_page(const Mapping& mapping, std::size_t length) {
  const std::size_t used = length % page_size();
  char* page = mapping.get() + (length - used);
  if (used == 0) {
    return true;
  }
  if (mprotect(page, page_size(), PROT_READ | PROT_WRITE) != 0) {
    return false;
  }
  memset(page + used, 0, page_size() - used);
  return mprotect(page, page_size(), PROT_READ) == 0;
}

}  // namespace

Mapping::~Mapping() {
  if (address_ != nullptr) {
    munmap(address_, length_);
  }
}

bool Buffer::allocate() {
  block_.reset(static_cast<char*>(malloc(kBlockSize)));
  return block_ != nullptr;
}

bool Buffer::allocate_cleared() {
  block_.reset(static_cast<char*>(calloc(kBlockSize, 1)));
  return block_ != nullptr;
}

void Buffer::clear() {
  view_ = Mapping();
  memfd_.reset();
  sealed_ = false;
  held_ = stored_ = granted_ = 0;
}

const char* Buffer::read() {
  if (size() == 0) {
    return nullptr;
  }
  if (in_packet()) {
    block_.get()[held_] = '\0';
    return block_.get();
  }
  if (view_.get() == nullptr && flush() == KX_SUCCESS) {
    view_ = map_terminated(memfd_.get(), stored_);
  }
  return view_.get();
}

int Buffer::copy(std::size_t offset, void* ret_bytes, std::size_t length) {
  if (length > size() || offset > size() - length) {
    return KX_IS_INVALID;
  }
  char* to = static_cast<char*>(ret_bytes);
  const std::size_t end = offset + length;
  while (offset < std::min(end, stored_)) {
    const ssize_t got =
        pread(memfd_.get(), to, std::min(end, stored_) - offset, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return KX_IO_FAILURE;
    }
    to += got;
    offset += static_cast<std::size_t>(got);
  }
  if (offset < end) {
    memcpy(to, block_.get() + (offset - stored_), end - offset);
  }
  return KX_SUCCESS;
}

// A memfd's pages are never given back under pressure: where they would exceed the memory of this
// process's control group, the process would be killed instead of getting an error.
bool Buffer::has_room_for(std::size_t size) {
  constexpr std::size_t kStep = 8 << 20;     // small ones are not asked about
  constexpr std::size_t kReserve = 8 << 20;  // for everything else that the process does
  if (size <= granted_ + kStep) {
    return true;
  }
  try {
    if (os::memory_room().left < kReserve + kStep + (size - stored_)) {
      return false;
    }
  } catch (const std::bad_alloc&) {
    return false;
  }
  granted_ = size;
  return true;
}

// Writes into the memfd at `offset`, all or nothing of it counted.
int Buffer::store(std::size_t offset, const void* bytes, std::size_t length) {
  if (!has_room_for(offset + length)) {
    return KX_IO_FAILURE;
  }
  const char* from = static_cast<const char*>(bytes);
  while (length > 0) {
    const ssize_t written = pwrite(memfd_.get(), from, length, static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return KX_IO_FAILURE;
    }
    from += written;
    offset += static_cast<std::size_t>(written);
    length -= static_cast<std::size_t>(written);
  }
  return KX_SUCCESS;
}

int Buffer::flush() {
  if (const int status = store(stored_, block_.get(), held_); status != KX_SUCCESS) {
    return status;
  }
  stored_ += held_;
  held_ = 0;
  return KX_SUCCESS;
}

int Buffer::move_to_memfd() {
  if (!memfd_.valid()) {
    memfd_.reset(memfd_create("kxbus", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!memfd_.valid()) {
      return status_of_errno();
    }
  }
  return flush();
}

// A sealed content that is to be changed is copied into a memfd of its own.
int Buffer::unseal() {
  if (!sealed_) {
    return KX_SUCCESS;
  }
  const char* bytes = read();
  if (bytes == nullptr) {
    return KX_IO_FAILURE;
  }
  Descriptor copy(memfd_create("kxbus", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!copy.valid()) {
    return status_of_errno();
  }
  std::swap(copy, memfd_);
  const int status = store(0, bytes, stored_);
  if (status != KX_SUCCESS) {
    std::swap(copy, memfd_);
    return status;
  }
  sealed_ = false;
  return KX_SUCCESS;
}

// Room for `length` more bytes, in the block where they fit at all.
int Buffer::make_room(std::size_t length) {
  if (length > kLargestBody || size() > kLargestBody - length) {
    return KX_IS_INVALID;
  }
  if (const int status = unseal(); status != KX_SUCCESS) {
    return status;
  }
  view_ = Mapping();
  return held_ + length > kPacketBody ? move_to_memfd() : KX_SUCCESS;
}

void Buffer::hold(std::size_t length) {
  held_ += length;
  dirty_ = std::max(dirty_, held_);
}

int Buffer::append(const void* bytes, std::size_t length) {
  if (const int status = make_room(length); status != KX_SUCCESS) {
    return status;
  }
  static_assert(kStoredAtOnce <= kPacketBody);  // what is larger has been given its memfd
  if (memfd_.valid() && held_ == 0 && length >= kStoredAtOnce) {
    const int status = store(stored_, bytes, length);
    stored_ += status == KX_SUCCESS ? length : 0;
    return status;
  }
  if (length > 0) {
    memcpy(block_.get() + held_, bytes, length);
    hold(length);
  }
  return KX_SUCCESS;
}

int Buffer::append_zeros(std::size_t length) {
  if (const int status = make_room(length); status != KX_SUCCESS) {
    return status;
  }
  memset(block_.get() + held_, 0, length);
  hold(length);
  return KX_SUCCESS;
}

int Buffer::overwrite(std::size_t offset, const void* bytes, std::size_t length) {
  if (length > size() || offset > size() - length) {
    return KX_IS_INVALID;
  }
  if (const int status = make_room(0); status != KX_SUCCESS) {
    return status;
  }
  const std::size_t part = offset < stored_ ? std::min(length, stored_ - offset) : 0;
  if (part > 0) {
    if (const int status = store(offset, bytes, part); status != KX_SUCCESS) {
      return status;
    }
  }
  if (length > part) {
    memcpy(block_.get() + (offset + part - stored_), static_cast<const char*>(bytes) + part,
           length - part);
  }
  return KX_SUCCESS;
}

int Buffer::resize(std::size_t new_size) {
  if (new_size > kLargestBody) {
    return KX_IS_INVALID;
  }
  if (new_size == 0) {
    clear();
    return KX_SUCCESS;
  }
  const std::size_t old_size = size();
  while (size() < new_size) {
    if (const int status = append_zeros(std::min(new_size - size(), kPacketBody));
        status != KX_SUCCESS) {
      resize(old_size);
      return status;
    }
  }
  if (size() == new_size) {
    return KX_SUCCESS;
  }
  if (const int status = make_room(0); status != KX_SUCCESS) {
    return status;
  }
  if (new_size >= stored_) {
    held_ = new_size - stored_;
    return KX_SUCCESS;
  }
  if (ftruncate(memfd_.get(), static_cast<off_t>(new_size)) != 0) {
    return KX_IO_FAILURE;
  }
  stored_ = new_size;
  held_ = 0;
  return KX_SUCCESS;
}

void Buffer::accept_request(std::size_t body_length) {
  clear();
  held_ = body_length;
  dirty_ = std::max(dirty_, held_);
  memset(block_.get() + held_, 0, dirty_ - held_);
  dirty_ = held_;
}

void Buffer::accept_reply(std::size_t body_length) {
  clear();
  held_ = body_length;
}

int Buffer::accept_memfd(Descriptor& memfd, std::size_t length) {
  if (const int status = check_memfd(memfd.get(), length); status != KX_SUCCESS) {
    return status;
  }
  Mapping mapping = map_terminated(memfd.get(), length);
  if (mapping.get() == nullptr || !clear_last_page(mapping, length)) {
    return KX_IO_FAILURE;
  }
  clear();
  view_ = std::move(mapping);
  memfd_ = std::move(memfd);
  stored_ = length;
  sealed_ = true;
  return KX_SUCCESS;
}

int Buffer::seal() {
  if (sealed_) {
    return KX_SUCCESS;
  }
  view_ = Mapping();
  if (const int status = move_to_memfd(); status != KX_SUCCESS) {
    return status;
  }
  if (ftruncate(memfd_.get(), static_cast<off_t>(stored_)) != 0 ||
      fcntl(memfd_.get(), F_ADD_SEALS, kSeals) != 0) {
    return KX_IO_FAILURE;
  }
  sealed_ = true;
  return KX_SUCCESS;
}

}  // namespace kxbus
