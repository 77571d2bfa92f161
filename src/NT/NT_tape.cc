#include "NT/NT_tape.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mtio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "NT/NT_fault.h"
#include "NT/NT_logerror.h"
#include "common/mrv_msg.h"
#include "common/mrv_worker.h"

int32_t last_block_size = 0;
int32_t drive_max_block = 0;
int32_t MNT_tape_name_unusable = 0;
extern "C" {
int32_t M_Status = 0;
}

namespace {

// Tape image (".tap") layout, record after record:
//
//   OFFSET  SIZE  DESCRIPTION
//   0       4     length word, little-endian: bits 0-23 the record length
//                 n, bits 28-31 the class (0 good data; any other class,
//                 such as 8 for data read with an error, is a record that
//                 cannot be read); 0 alone is a tape mark, 0xFFFFFFFF the
//                 end of the medium, 0xFFFFFFFE an erase gap of four bytes
//   4       n     the record's bytes
//   4+n     0/1   one pad byte when n is odd
//   ...     4     the length word again, so the image can be walked back
constexpr uint32_t kImageMark = 0;
constexpr uint32_t kImageEndOfMedium = 0xFFFFFFFFu;
constexpr uint32_t kImageGap = 0xFFFFFFFEu;
constexpr uint32_t kImageLengthMask = 0x00FFFFFFu;
constexpr int kImageWord = 4;

constexpr int kTries = 10;
constexpr int kDriveInfoTries = 15;
constexpr int32_t kPauseMs = 250;

enum class Medium { kDrive, kImage, kFile };

// Images are read through a window of this many bytes: a record and its
// length words come out of memory, and the file is read in large requests.
constexpr size_t kImageWindow = size_t{1} << 20;
// A window read ahead leaves this much room in front of its bytes for the
// tail of the window before: the record that runs across their border.
constexpr size_t kImageCarry = size_t{64} << 10;

struct Slot {
  int fd = -1;
  bool writable = false;
  Medium medium = Medium::kFile;
  std::string name;  // without the rewind prefix
  int64_t pos = 0;   // images: offset of the next record; files: kept at close
  bool at_end = false;
  // Images: window_len bytes of the file from window_at, held from
  // window_base of `window`, and the file's size when they were read;
  // window_at -1 when nothing is held. window_eof: the read that filled the
  // window reached the end of the file. Every write to the image drops the
  // window.
  std::shared_ptr<unsigned char[]> window;
  int64_t window_base = 0;
  int64_t window_at = -1;
  int64_t window_len = 0;
  int64_t window_size = -1;
  bool window_eof = false;
};

Slot g_slots[MNT_TAPE_SLOTS];

// Where each image or file was left when it was closed, so that opening
// the same name again goes on from there.
struct KeptPosition {
  dev_t dev = 0;
  ino_t ino = 0;
  int64_t pos = 0;
};
std::map<std::string, KeptPosition> g_kept;

uint32_t get_le32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void put_le32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

bool ends_with(const std::string& text, const char* tail) {
  size_t n = std::strlen(tail);
  return text.size() >= n && text.compare(text.size() - n, n, tail) == 0;
}

Slot* slot_at(int slot) {
  if (slot < 0 || slot >= MNT_TAPE_SLOTS || g_slots[slot].fd < 0) return nullptr;
  return &g_slots[slot];
}

int drive_op(int fd, short op, int count) {
  mtop m{};
  m.mt_op = op;
  m.mt_count = count;
  return ioctl(fd, MTIOCTOP, &m);
}

bool is_drive(int fd) {
  mtget status{};
  return ioctl(fd, MTIOCGET, &status) == 0;
}

// Outcome of one attempt at the medium.
enum class Got { kData, kMark, kEnd, kRetry, kFault };
struct Attempt {
  Got got;
  int n;
};

int64_t file_size(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

std::shared_ptr<unsigned char[]> window_buffer() {
  return std::shared_ptr<unsigned char[]>(new unsigned char[kImageCarry + kImageWindow]);
}

// The window after a whole one of a read-only image, read by the tape
// worker while the decoder works through the window before; at most one
// is out. Its bytes land kImageCarry into `bytes`. Its fields are the
// worker's until it is settled.
struct AheadRead {
  std::shared_ptr<unsigned char[]> bytes;
  int fd = -1;
  int64_t at = -1;  // -1: none
  ssize_t got = -1;
  int64_t size = -1;
};
AheadRead g_ahead;

struct TapeTag;
MrvWorker& tape_worker() { return mrv_worker<TapeTag>(); }

// Lets go of the read ahead of `fd` (of any with -1), once the worker is
// done with it: before the descriptor closes or the image is written.
void drop_ahead(int fd) {
  if (g_ahead.at < 0 || (fd >= 0 && g_ahead.fd != fd)) return;
  tape_worker().settle();
  g_ahead.at = -1;
}

// Reads the window after the slot's on the worker.
void start_ahead(const Slot& s) {
  drop_ahead(-1);
  if (!g_ahead.bytes) g_ahead.bytes = window_buffer();
  g_ahead.fd = s.fd;
  g_ahead.at = s.window_at + s.window_len;
  tape_worker().start([fd = s.fd, at = g_ahead.at, bytes = g_ahead.bytes.get() + kImageCarry] {
    g_ahead.got = pread(fd, bytes, kImageWindow, at);
    g_ahead.size = file_size(fd);
  });
}

// The window from `from` out of the slot's window and the one read ahead
// after it, when `from` lies in the slot's window no further than
// kImageCarry from its end: the tail is copied in front of the bytes read
// ahead, and that buffer becomes the window. False when it cannot be had
// so (the read ahead is let go of then).
bool take_ahead(Slot& s, int64_t from) {
  const int64_t border = s.window_at + s.window_len;
  if (g_ahead.at < 0 || g_ahead.fd != s.fd || g_ahead.at != border || s.window_at < 0 || from < s.window_at ||
      from > border || border - from > static_cast<int64_t>(kImageCarry)) {
    drop_ahead(-1);
    return false;
  }
  tape_worker().settle();
  g_ahead.at = -1;
  if (g_ahead.got < 0) return false;
  const int64_t tail = border - from;
  unsigned char* front = g_ahead.bytes.get() + kImageCarry - tail;
  std::memcpy(front, s.window.get() + s.window_base + (from - s.window_at), static_cast<size_t>(tail));
  std::swap(s.window, g_ahead.bytes);
  s.window_base = static_cast<int64_t>(kImageCarry) - tail;
  s.window_at = from;
  s.window_len = tail + g_ahead.got;
  s.window_size = g_ahead.size;
  s.window_eof = g_ahead.got < static_cast<ssize_t>(kImageWindow);
  return true;
}

// pread of an image through the slot's window. A request that the window
// does not hold reads the window anew, from the start of the current
// record when the request lies behind it (so that the record's length
// words and bytes come from one read), else from the request's offset.
// A window whose read reached the end of the file ends there. While a
// read-only image is read on, the worker reads the window after.
ssize_t image_pread(Slot& s, void* buffer, size_t count, int64_t offset) {
  const auto want = static_cast<int64_t>(count);
  auto inside = [&] { return s.window_at >= 0 && offset >= s.window_at && offset + want <= s.window_at + s.window_len; };
  auto held = [&](int64_t at) { return s.window.get() + s.window_base + (at - s.window_at); };
  const int64_t from = std::min(offset, s.pos);
  if (!inside() && offset + want - from <= static_cast<int64_t>(kImageWindow)) {
    if (!s.window) s.window = window_buffer();
    if (!take_ahead(s, from)) {
      ssize_t got = pread(s.fd, s.window.get(), kImageWindow, from);
      if (got < 0) {
        s.window_at = -1;
        return -1;
      }
      s.window_base = 0;
      s.window_at = from;
      s.window_len = got;
      s.window_size = file_size(s.fd);
      s.window_eof = got < static_cast<ssize_t>(kImageWindow);
    }
    if (!s.writable && !s.window_eof) start_ahead(s);
  }
  if (inside()) {
    std::memcpy(buffer, held(offset), count);
    return want;
  }
  if (s.window_at >= 0 && offset >= s.window_at && s.window_eof) {
    // The request runs past the end of the file: a short answer, as pread
    // gives.
    int64_t have = std::clamp<int64_t>(s.window_at + s.window_len - offset, 0, want);
    if (have > 0) std::memcpy(buffer, held(offset), static_cast<size_t>(have));
    return have;
  }
  return pread(s.fd, buffer, count, offset);
}

void drop_window(Slot& s) {
  drop_ahead(s.fd);
  s.window_at = -1;
}

// One record of an image. A damaged image (a length that runs past the end
// of the file or disagrees with its copy behind the record) is a fault that
// no retry cures: the position goes to the end, so the next read ends.
Attempt image_read(Slot& s, void* buffer, int count) {
  for (;;) {
    unsigned char word[kImageWord];
    ssize_t got = image_pread(s, word, kImageWord, s.pos);
    // The file's size as it was when the bytes in hand were read.
    const int64_t size = s.window_at >= 0 ? s.window_size : file_size(s.fd);
    if (got < 0) return {Got::kRetry, -1};
    if (got < kImageWord) return {Got::kEnd, 0};
    uint32_t w = get_le32(word);
    if (w == kImageMark) {
      s.pos += kImageWord;
      return {Got::kMark, 0};
    }
    if (w == kImageEndOfMedium) return {Got::kEnd, 0};
    if (w == kImageGap) {
      s.pos += kImageWord;
      continue;
    }
    const int64_t length = w & kImageLengthMask;
    const int64_t padded = length + (length & 1);
    const int64_t next = s.pos + 2 * kImageWord + padded;
    unsigned char trailer[kImageWord];
    if (size < 0 || next > size ||
        image_pread(s, trailer, kImageWord, next - kImageWord) != kImageWord ||
        get_le32(trailer) != w) {
      s.pos = size < 0 ? s.pos : size;
      errno = EIO;
      return {Got::kFault, -1};
    }
    if ((w >> 28) != 0) {  // recorded as unreadable
      s.pos = next;
      errno = EIO;
      return {Got::kFault, -1};
    }
    const int take = static_cast<int>(std::min<int64_t>(length, count));
    if (image_pread(s, buffer, static_cast<size_t>(take), s.pos + kImageWord) != take)
      return {Got::kRetry, -1};
    s.pos = next;
    return {Got::kData, take};
  }
}

Attempt medium_read(Slot& s, void* buffer, int count) {
  if (s.medium == Medium::kImage) return image_read(s, buffer, count);
  ssize_t n = read(s.fd, buffer, static_cast<size_t>(count));
  if (n > 0) return {Got::kData, static_cast<int>(n)};
  if (n == 0) return {s.medium == Medium::kDrive ? Got::kMark : Got::kEnd, 0};
  if (s.medium == Medium::kDrive && errno == ENOSPC) return {Got::kEnd, 0};
  return {Got::kRetry, -1};
}

// Writes one record (image, drive) or bytes (file). Writing on a tape ends
// it: whatever an image held behind the new record is cut off.
int medium_write(Slot& s, const void* buffer, int count) {
  drop_window(s);
  if (s.medium != Medium::kImage) {
    ssize_t n = write(s.fd, buffer, static_cast<size_t>(count));
    return n < 0 ? -1 : static_cast<int>(n);
  }
  if (static_cast<uint32_t>(count) > kImageLengthMask) {
    errno = EINVAL;
    return -1;
  }
  std::string record(static_cast<size_t>(2 * kImageWord + count + (count & 1)), '\0');
  auto* p = reinterpret_cast<unsigned char*>(record.data());
  put_le32(p, static_cast<uint32_t>(count));
  std::memcpy(p + kImageWord, buffer, static_cast<size_t>(count));
  put_le32(p + record.size() - kImageWord, static_cast<uint32_t>(count));
  if (pwrite(s.fd, p, record.size(), s.pos) != static_cast<ssize_t>(record.size())) return -1;
  s.pos += static_cast<int64_t>(record.size());
  if (ftruncate(s.fd, s.pos) != 0) return -1;
  return count;
}

int image_mark(Slot& s) {
  drop_window(s);
  unsigned char word[kImageWord];
  put_le32(word, kImageMark);
  if (pwrite(s.fd, word, kImageWord, s.pos) != kImageWord) return -1;
  s.pos += kImageWord;
  return ftruncate(s.fd, s.pos);
}

// Moves an image back over `marks` tape marks. False when the start of the
// image comes first; the position is then 0.
bool image_back_marks(Slot& s, int marks) {
  while (marks > 0) {
    unsigned char word[kImageWord];
    if (s.pos < kImageWord || image_pread(s, word, kImageWord, s.pos - kImageWord) != kImageWord) {
      s.pos = 0;
      return false;
    }
    uint32_t w = get_le32(word);
    if (w == kImageMark) {
      --marks;
      s.pos -= kImageWord;
    } else if (w == kImageEndOfMedium || w == kImageGap) {
      s.pos -= kImageWord;
    } else {
      int64_t length = w & kImageLengthMask;
      s.pos -= 2 * kImageWord + length + (length & 1);
      if (s.pos < 0) {
        s.pos = 0;
        return false;
      }
    }
  }
  return true;
}

// Moves an image forward past its next tape mark, or to its end.
void image_forward_mark(Slot& s) {
  char scratch[1];
  for (;;) {
    const int64_t before = s.pos;
    Attempt a = image_read(s, scratch, 0);
    if (a.got != Got::kData && (a.got != Got::kFault || s.pos == before)) return;
  }
}

// The block size to read or write a count with. Only drives have one: for
// any other medium the chunk is the count.
int block_size_step(const Slot& s, int count) {
  if (s.medium != Medium::kDrive || count == last_block_size) return count;
  if (last_block_size == 0) {
    // The st driver tells that the device is a tape, not its largest block,
    // so a drive runs with what is set on it unless a size was given here.
    bool tape = false;
    for (int i = 0; i < kDriveInfoTries; ++i) {
      mtget status{};
      if (ioctl(s.fd, MTIOCGET, &status) == 0) {
        tape = true;
        break;
      }
      if (errno == EINVAL || errno == ENOTTY) break;
      M_sleep_ms(kPauseMs);
    }
    if (!tape) {
      last_block_size = count;
      return count;
    }
    drive_max_block = 0;
  }
  if (drive_max_block == 0) {
    drive_max_block = count;
    return count;
  }
  int size = std::min(count, drive_max_block);
  if (drive_op(s.fd, MTSETBLK, size) == 0 || errno == EINVAL) {
    last_block_size = size;
    return size;
  }
  return -1;
}

int open_failure(int err) {
  errno = err;
  MNT_LogError("Create File");
  if (err == ENOENT || err == ENOTDIR || err == EACCES || err == EPERM) {
    M_Status = MNT_STATUS_NO_NAME;
    MNT_tape_name_unusable = 1;
  } else {
    M_Status = MNT_STATUS_FAULT;
  }
  return -1;
}

// Opens a drive: ten tries 250 ms apart; read and write unless the tape is
// protected and only reading was asked for.
int open_drive(const std::string& name, int flags, bool rewind) {
  int fd = -1;
  for (int i = 0; i < kTries && fd < 0; ++i) {
    fd = open(name.c_str(), O_RDWR);
    if (fd < 0 && flags == 0 && (errno == EACCES || errno == EROFS)) fd = open(name.c_str(), O_RDONLY);
    if (fd < 0) M_sleep_ms(kPauseMs);
  }
  if (fd < 0) return -1;
  if (rewind && is_drive(fd)) {
    bool loaded = false;
    for (int i = 0; i < kTries && !loaded; ++i) loaded = drive_op(fd, MTLOAD, 1) == 0;
    if (!loaded) {
      int err = errno;
      MNT_LogError("Prepare Tape");
      close(fd);
      errno = err;
      return -1;
    }
    if (drive_op(fd, MTREW, 1) != 0) {
      int err = errno;
      close(fd);
      errno = err;
      return -1;
    }
  }
  return fd;
}

int open_file(const std::string& name, int flags) {
  int mode = flags != 0 ? O_RDWR : O_RDONLY;
  if (flags & MNT_TAPE_CREATE) mode |= O_CREAT;
  if (flags & MNT_TAPE_TRUNCATE) mode |= O_TRUNC;
  return open(name.c_str(), mode, 0666);
}

}  // namespace

int MNT_TapeOpen(const char* name, int flags) {
  int slot = 0;
  while (slot < MNT_TAPE_SLOTS && g_slots[slot].fd >= 0) ++slot;
  if (slot == MNT_TAPE_SLOTS) {
    MNT_LogError("Error: No tape HANDLE table entry");
    M_Status = MNT_STATUS_FAULT;
    return 0;
  }
  bool rewind = name[0] == 'r' || name[0] == 'R';
  std::string path = rewind ? name + 1 : name;

  Slot s;
  s.name = path;
  s.writable = flags != 0;
  struct stat st;
  if (ends_with(path, ".tap")) {
    s.medium = Medium::kImage;
    s.fd = open_file(path, flags);
  } else if (stat(path.c_str(), &st) == 0 && S_ISCHR(st.st_mode)) {
    s.fd = open_drive(path, flags, rewind);
    s.medium = s.fd >= 0 && is_drive(s.fd) ? Medium::kDrive : Medium::kFile;
  } else {
    s.fd = open_file(path, flags);
  }
  if (s.fd < 0) return open_failure(errno);

  if (s.medium != Medium::kDrive && fstat(s.fd, &st) == 0) {
    auto kept = g_kept.find(path);
    if (!rewind && kept != g_kept.end() && kept->second.dev == st.st_dev &&
        kept->second.ino == st.st_ino)
      s.pos = kept->second.pos;
    if (s.medium == Medium::kFile && lseek(s.fd, s.pos, SEEK_SET) < 0) s.pos = 0;
    g_kept[path] = {st.st_dev, st.st_ino, s.pos};
  }
  g_slots[slot] = s;
  return slot;
}

int MNT_TapeClose(int slot) {
  Slot* s = slot_at(slot);
  if (s == nullptr) return 0;
  if (s->writable) {
    // The mark that ends what was written; its failure changes nothing.
    if (s->medium == Medium::kDrive) drive_op(s->fd, MTWEOF, 1);
    if (s->medium == Medium::kImage) image_mark(*s);
  }
  if (s->medium == Medium::kFile) s->pos = lseek(s->fd, 0, SEEK_CUR);
  if (s->medium != Medium::kDrive && s->pos >= 0) g_kept[s->name].pos = s->pos;
  int fd = s->fd;
  drop_ahead(fd);
  *s = Slot{};
  if (close(fd) != 0) {
    MNT_LogError("CloseHandle");
    M_Status = MNT_STATUS_FAULT;
    return -1;
  }
  return 0;
}

int MNT_TapeRead(int slot, void* buffer, int count) {
  Slot* s = slot_at(slot);
  if (s == nullptr) {
    errno = EBADF;
    MNT_LogError("Read File");
    M_Status = MNT_STATUS_FAULT;
    return -1;
  }
  int chunk = block_size_step(*s, count);
  if (chunk < 0) {
    MNT_LogError("Read File");
    M_Status = MNT_STATUS_FAULT;
    return -1;
  }
  if (count <= 0 || chunk <= 0) {
    // Nothing to read: the last outcome on this medium decides.
    M_Status = s->at_end ? MNT_STATUS_END_OF_DATA : MNT_STATUS_FAULT;
    return s->at_end ? 0 : -1;
  }
  if (NT_fault_tape_read()) {
    MNT_LogError("Read File");
    M_Status = MNT_STATUS_FAULT;
    return -1;
  }
  auto* out = static_cast<unsigned char*>(buffer);
  int total = 0;
  // A short block ends nothing: progress counts the chunk asked for, so with
  // a chunk equal to the count one read takes one block of any length.
  for (int done = 0; done < count; done += chunk) {
    const int want = std::min(chunk, count - done);
    for (int tries = 1;; ++tries) {
      Attempt a = medium_read(*s, out + done, want);
      if (a.got == Got::kData) {
        s->at_end = false;
        total += a.n;
        break;
      }
      if (a.got == Got::kMark || a.got == Got::kEnd) {
        s->at_end = true;
        M_Status = MNT_STATUS_END_OF_DATA;
        return 0;
      }
      MNT_LogError("Read File");
      s->at_end = false;
      if (a.got == Got::kFault || tries == kTries) {
        M_Status = MNT_STATUS_FAULT;
        return -1;
      }
      M_sleep_ms(kPauseMs);
    }
  }
  return total;
}

int MNT_TapeWrite(int slot, const void* buffer, int count) {
  Slot* s = slot_at(slot);
  int chunk = s != nullptr && s->writable ? block_size_step(*s, count) : -1;
  if (chunk < 0 || (count > 0 && chunk == 0)) {
    if (s != nullptr && !s->writable) errno = EBADF;
    MNT_LogError("Write File");
    M_Status = MNT_STATUS_FAULT;
    return -1;
  }
  const auto* in = static_cast<const unsigned char*>(buffer);
  int total = 0;
  for (int done = 0; done < count; done += chunk) {
    const int want = std::min(chunk, count - done);
    for (int tries = 1;; ++tries) {
      int n = medium_write(*s, in + done, want);
      if (n >= 0) {
        total += n;
        break;
      }
      if (tries == kTries) {
        MNT_LogError("Write File");
        M_Status = MNT_STATUS_FAULT;
        return -1;
      }
      M_sleep_ms(kPauseMs);
    }
  }
  return total;
}

int MNT_TapeRewind(int slot) {
  Slot* s = slot_at(slot);
  if (s == nullptr) return 1;
  s->at_end = false;
  switch (s->medium) {
    case Medium::kImage:
      s->pos = 0;
      return 0;
    case Medium::kFile:
      return lseek(s->fd, 0, SEEK_SET) == 0 ? 0 : 1;
    case Medium::kDrive:
      break;
  }
  return drive_op(s->fd, MTREW, 1) == 0 ? 0 : 1;
}

int MNT_TapeMark(int slot) {
  Slot* s = slot_at(slot);
  if (s == nullptr || !s->writable) return 1;
  if (s->medium == Medium::kImage) return image_mark(*s) == 0 ? 0 : 1;
  if (s->medium == Medium::kDrive) return drive_op(s->fd, MTWEOF, 1) == 0 ? 0 : 1;
  return 1;  // a plain file has no marks
}

int MNT_TapeBack(const char* name, int count) {
  int slot = MNT_TapeOpen(name, MNT_TAPE_READ);
  if (slot < 0) return 1;
  Slot* s = slot_at(slot);
  if (s == nullptr) {
    MNT_LogError("Invalid File Handle\n");
    return 1;
  }
  int result = 0;
  if (s->medium == Medium::kImage) {
    if (image_back_marks(*s, count + 1)) image_forward_mark(*s);
  } else if (s->medium == Medium::kFile) {
    lseek(s->fd, 0, SEEK_SET);
  } else if (drive_op(s->fd, MTBSF, count + 1) == 0) {
    drive_op(s->fd, MTFSF, 1);
  } else {
    mtget status{};
    if (ioctl(s->fd, MTIOCGET, &status) == 0 && GMT_BOT(status.mt_gstat)) {
      drive_op(s->fd, MTREW, 1);
    } else {
      MNT_LogError("Tape Back");
      result = 1;
    }
  }
  MNT_TapeClose(slot);
  return result;
}

int MNT_TapeUnload(const char* name) {
  std::string path = name[0] == 'r' || name[0] == 'R' ? name + 1 : name;
  if (g_kept.erase(path) > 0) return 0;
  int fd = open(path.c_str(), O_RDWR);
  if (fd < 0) fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) {
    MNT_LogError("Create File");
    return 1;
  }
  int result = 0;
  if (is_drive(fd)) {
    if (drive_op(fd, MTREW, 1) != 0) {
      MNT_LogError("Rewind Error.");
      result = 1;
    } else if (drive_op(fd, MTOFFL, 1) != 0) {
      MNT_LogError("Unload Tape Error.");
      result = 1;
    }
  }
  close(fd);
  return result;
}

int MNT_TapeReadBytes(int slot, void* buffer, int count) {
  Slot* s = slot_at(slot);
  if (s == nullptr) {
    errno = EBADF;
    return -1;
  }
  if (NT_fault_tape_read()) return -1;
  if (s->medium == Medium::kImage) {
    Attempt a = image_read(*s, buffer, count);
    if (a.got == Got::kRetry) a = image_read(*s, buffer, count);
    return a.got == Got::kData ? a.n : (a.got == Got::kMark || a.got == Got::kEnd ? 0 : -1);
  }
  ssize_t n = read(s->fd, buffer, static_cast<size_t>(count));
  if (n >= 0) return static_cast<int>(n);
  off_t at = lseek(s->fd, 0, SEEK_CUR);
  if (at < 0) return static_cast<int>(read(s->fd, buffer, static_cast<size_t>(count)));
  struct flock lock {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = at;
  lock.l_len = count;
  fcntl(s->fd, F_SETLKW, &lock);
  n = read(s->fd, buffer, static_cast<size_t>(count));
  lock.l_type = F_UNLCK;
  fcntl(s->fd, F_SETLK, &lock);
  return static_cast<int>(n);
}
