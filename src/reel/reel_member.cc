#include "reel/reel_member.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "NT/NT_command.h"
#include "NT/NT_fault.h"
#include "common/fl_errout.h"
#include "common/mrv_marks.h"
#include "flib/fl_globals.h"
#include "flib/fl_write.h"
#include "reel/reel_account.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_resume.h"
#include "reel/reel_settings.h"
#include "reel/reel_summary.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_target.h"
#include "reel/reel_util.h"

namespace {

constexpr char kSamDir[] = "SAM";
constexpr char kDamDir[] = "DAM";
constexpr char kProgramList[] = "pgm_list";
// Longer item names are reported, and used all the same.
constexpr size_t kItemNameLimit = 200;

// A member renamed on disk: pgm_map maps its tape path to the new name,
// and pgm_list gets the pair as a line.
void record_rename(const std::string& key, const std::string& name) {
  M_append_strtuple(&reel_pgm_map, reinterpret_cast<const uint8_t*>(key.data()),
                    static_cast<int32_t>(key.size()), reinterpret_cast<const uint8_t*>(name.data()),
                    static_cast<int32_t>(name.size()), 0, nullptr);
  NT_cmd_echo_append(kProgramList, NT_echo_word(key) + " " + NT_echo_word(name));
}

// One chunk of the member at hand. After a failed write nothing more of
// the slot's object is written: its files would have holes.
void write_chunk(const std::string& directory, const std::string& item, const std::vector<char>& text,
                 size_t used, int first) {
  if (!reel_file_complete(reel_current)) return;
  const uint64_t failed_before = NT_write_failures;
  if (reel_write_member(directory.c_str(), item.c_str(), static_cast<int32_t>(item.size()), text.data(),
                        static_cast<int32_t>(used), first) < 0 &&
      NT_write_failures != failed_before)
    reel_write_failed(NT_last_write_errno);
}

// Reads the member's data blocks from the next block on and writes the
// text to "<directory>/<item>" in chunks of the transfer buffer. Leaves the
// first block that is not a data block in the buffer.
void load_member(unsigned char* buffer, int32_t* length, const std::string& directory,
                 const std::string& item, bool show, std::vector<char>& text) {
  *length = reel_next_block(buffer);
  int first = 1;
  size_t used = 0;
  while (tape_block_type(buffer) == TAPE_BLOCK_DATA) {
    // `used` may have passed the buffer's size after a grown block.
    if (used + REEL_MEMBER_FLUSH_ROOM > REEL_MEMBER_BUFFER) {
      write_chunk(directory, item, text, used, first);
      first = 0;
      used = 0;
    }
    // Blank runs may grow a block far beyond the room kept free; the buffer
    // grows to the worst case of the block rather than be overrun.
    // A header may claim less than itself: such a block holds no text.
    const int32_t count = std::max(0, *length - TAPE_HEADER_SIZE);
    const size_t need = used + reel_text_worst_case(static_cast<size_t>(count));
    if (text.size() < need) text.resize(need);
    used += static_cast<size_t>(
        reel_text_from_tape(text.data() + used, buffer + TAPE_HEADER_SIZE, count));
    *length = reel_next_block(buffer);
  }
  text[used] = '\0';
  if (show) reel_show('L', 1);
  write_chunk(directory, item, text, used, first);
}

}  // namespace

int reel_write_member(const char* directory, const char* item, int32_t item_len, const char* data,
                      int32_t data_len, int first) {
  std::string name(item, static_cast<size_t>(item_len > 0 ? item_len : 0));
  if (!name.empty() && static_cast<unsigned char>(name.back()) == M_FM) name.pop_back();
  if (name.size() > kItemNameLimit) {
    M_errout(0, "Write record name %s too long,truncate to ", name.c_str());
    M_errout(0, "%s\n", name.c_str());
  }
  const std::string path = std::string(directory) + "/" + name;
  const int flags = first ? O_WRONLY | O_CREAT | O_TRUNC : O_WRONLY | O_APPEND;
  int fd = open(path.c_str(), flags, 0666);
  if (fd < 0 && (errno == EPERM || errno == EACCES)) {
    // A file that is not ours to write is replaced, once.
    if (unlink(path.c_str()) != 0 && (errno == EPERM || errno == EACCES)) {
      M_errout(0,
               errno == EPERM ? "WRITE item %s to file %s error. Not owner.\n"
                              : "WRITE item %s to file %s error. Permission denied.\n",
               name.c_str(), directory);
      M_Status = 0;
      return -1;
    }
    fd = open(path.c_str(), flags, 0666);
  }
  if (fd < 0) {
    M_errout(0, "WRITE item %s to file %s error.\n", name.c_str(), directory);
    M_Status = 0;
    return -1;
  }
  for (int32_t done = 0; done < data_len;) {
    const ssize_t n = NT_write(fd, data + done, static_cast<size_t>(data_len - done));
    if (n <= 0) {
      close(fd);
      return -1;
    }
    done += static_cast<int32_t>(n);
  }
  close(fd);
  if (first) reel_summary_member();  // counted once its first piece stands
  return 1;
}

void reel_member_file(unsigned char* buffer, int32_t* length) {
  CurrentFile& f = reel_current;
  const char* directory = f.file_kind == FILE_KIND_SAM ? kSamDir : kDamDir;
  f.short_name = f.name;
  // The lookup is by the path under SAM or DAM, but a rename is recorded
  // under the plain name that reel_target_name leaves in the key: a
  // top-level member is renamed afresh on every restore.
  std::string key = std::string(directory) + "/" + f.name;
  if (reel_target_name(key, f.short_name, REEL_NAME_MEMBER) == REEL_TARGET_OTHER)
    record_rename(key, f.short_name);
  std::vector<char> text(REEL_MEMBER_BUFFER);
  reel_note_loading(f.file_kind, f.name);
  load_member(buffer, length, directory, f.short_name, true, text);

  // A member of the account's top is a file of its own: complete when it
  // was written.
  if (const SummaryFile* entry = reel_summary_current_file())
    reel_summary_file_end(-1, entry->records_restored > 0);
}

void reel_dir_members(unsigned char* buffer, int32_t* length) {
  const RunSettings& s = reel_settings;
  const CurrentFile& f = reel_current;
  // Members are written inside the directory's target; without its name
  // on disk there is nowhere inside the account to put them.
  if (f.short_name.empty()) {
    if (*length == s.level_sub) reel_skip_blocks(buffer, length, SkipMode::Object);
    return;
  }
  std::vector<char> text(REEL_MEMBER_BUFFER);
  while (*length >= s.level_sub && tape_block_type(buffer) == TAPE_BLOCK_DESCRIPTION) {
    // Deeper paths (sub-directories' contents) and objects that are no
    // members are passed with their data.
    if (*length > s.level_sub) {
      reel_skip_blocks(buffer, length, SkipMode::Data);
      continue;
    }
    const uint8_t type = tape_path_type(buffer, s.level_file);
    if (type != TAPE_OBJECT_SAM && type != TAPE_OBJECT_DAM) {
      reel_skip_blocks(buffer, length, SkipMode::Data);
      continue;
    }
    char tape_name[PATH_NAME_SIZE + 1];
    tape_path_name(tape_name, buffer, s.level_file);
    if (tape_name[0] == '$') {
      reel_skip_blocks(buffer, length, SkipMode::Data);
      continue;
    }
    // A member of a directory is mapped by its path: a later restore of
    // the same member finds the mapping and takes the same name.
    std::string path = f.short_name + "/" + tape_name;
    std::string name = tape_name;
    if (reel_target_name(path, name, REEL_NAME_MEMBER) == REEL_TARGET_OTHER)
      record_rename(f.short_name + "/" + tape_name, name);
    load_member(buffer, length, f.short_name, name, false, text);
    if (!s.target_dir.empty())
      NT_cmd_move((f.short_name + "/" + name).c_str(),
                  (reel_target_path() + "/" + f.short_name + "/" + name).c_str());
  }
}
