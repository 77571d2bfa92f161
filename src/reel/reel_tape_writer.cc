#include "reel/reel_tape_writer.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "NT/NT_tape.h"
#include "common/mrv_marks.h"
#include "reel/reel_convert.h"

namespace {

constexpr char kFirstName[] = "SAVE";
constexpr char kDefaultDate[] = "01-01-92";

int fail(TapeWriter& w, const std::string& what) {
  w.error = w.path + ": " + what;
  return -1;
}

bool is_plain_file(const std::string& path) {
  if (path.size() >= 4 && path.compare(path.size() - 4, 4, ".tap") == 0) return false;
  struct stat st;
  return !(stat(path.c_str(), &st) == 0 && S_ISCHR(st.st_mode));
}

// One physical record (or the bytes of a plain file), converted for -M.
int write_record(TapeWriter& w, const unsigned char* bytes, size_t size, bool convert = true) {
  // One spare byte: the inverse of mode 3 reaches one beyond an odd count.
  std::vector<unsigned char> record(bytes, bytes + size);
  record.push_back(0);
  if (convert)
    w.lossy_bytes += reel_convert_bytes(record.data(), w.options.convert_mode,
                                        static_cast<int32_t>(size), REEL_CONVERT_WRITE);
  const int n = static_cast<int>(size);
  if (MNT_TapeWrite(w.slot, record.data(), n) != n) return fail(w, "write failed");
  return 0;
}

// Writes the buffered stream in records of stream_record bytes; with
// `all`, the short tail as well.
int flush_pending(TapeWriter& w, bool all) {
  const size_t record = w.options.framing == TapeFraming::kBuffered
                            ? static_cast<size_t>(std::max(w.options.stream_record, 2))
                            : w.pending.size();
  size_t done = 0;
  while (done < w.pending.size() && (all || w.pending.size() - done >= record)) {
    size_t n = std::min(record, w.pending.size() - done);
    if (write_record(w, w.pending.data() + done, n) != 0) return -1;
    done += n;
  }
  w.pending.erase(w.pending.begin(), w.pending.begin() + static_cast<std::ptrdiff_t>(done));
  return 0;
}

// A whole block, header included, in the current framing.
int put_block(TapeWriter& w, const std::vector<unsigned char>& block) {
  switch (w.options.framing) {
    case TapeFraming::kPlain: {
      const size_t record = static_cast<size_t>(std::max(w.options.record_size, 0));
      if (record == 0) return write_record(w, block.data(), block.size());
      if (block.size() > record) return fail(w, "block longer than the record size");
      std::vector<unsigned char> padded(block);
      padded.resize(record, 0);
      return write_record(w, padded.data(), padded.size());
    }
    case TapeFraming::kBuffered:
    case TapeFraming::kStream:
      w.pending.insert(w.pending.end(), block.begin(), block.end());
      return flush_pending(w, false);
    case TapeFraming::kCartridge:
      for (size_t at = 0; at < block.size(); at += CARTRIDGE_PAYLOAD) {
        unsigned char frame[CARTRIDGE_FRAME] = {};
        const size_t n = std::min<size_t>(CARTRIDGE_PAYLOAD, block.size() - at);
        tape_put_u16(frame + CARTRIDGE_OFF_COUNT, static_cast<uint16_t>(n));
        std::memcpy(frame + CARTRIDGE_OFF_PAYLOAD, block.data() + at, n);
        if (write_record(w, frame, sizeof frame) != 0) return -1;
      }
      return 0;
  }
  return 0;
}

}  // namespace

std::vector<unsigned char> reel_tape_text(const std::string& text) {
  std::vector<unsigned char> out(text.begin(), text.end());
  for (auto& c : out) c = tape_flip(c);
  return out;
}

int reel_writer_open(TapeWriter& w, const std::string& path, const TapeWriterOptions& options) {
  w.options = options;
  w.path = path;
  w.error.clear();
  w.pending.clear();
  w.next_block_no = 1;
  w.plain_file = is_plain_file(path);
  if (options.framing == TapeFraming::kStream && !w.plain_file)
    return fail(w, "the stream framing is written to a plain file");
  if (options.framing == TapeFraming::kPlain && w.plain_file && options.record_size <= 0)
    return fail(w, "a plain file needs a record size");
  // The rewind prefix: writing starts at the beginning of the medium.
  const std::string name = "r" + path;
  w.slot = MNT_TapeOpen(name.c_str(), MNT_TAPE_WRITE | MNT_TAPE_CREATE | MNT_TAPE_TRUNCATE);
  if (w.slot < 0) {
    w.slot = -1;
    return fail(w, std::string("cannot open: ") + std::strerror(errno));
  }
  return 0;
}

int reel_writer_next_reel(TapeWriter& w, const std::string& path) {
  if (w.slot >= 0 && reel_writer_close(w) != 0) return -1;
  return reel_writer_open(w, path, w.options);
}

int reel_writer_label(TapeWriter& w, const TapeLabel& label,
                      const std::vector<std::vector<unsigned char>>& label_file) {
  if (w.plain_file) return fail(w, "a plain file cannot carry a label");
  if (flush_pending(w, true) != 0) return -1;
  TapeLabel fields = label;
  if (fields.tape_no == 0) fields.tape_no = w.last_tape_no + 1;
  if (fields.name[0] == '\0')
    std::snprintf(fields.name, sizeof fields.name, "%s",
                  w.last_name.empty() ? kFirstName : w.last_name.c_str());
  if (fields.date[0] == '\0') std::snprintf(fields.date, sizeof fields.date, "%s", kDefaultDate);

  std::vector<unsigned char> block(static_cast<size_t>(LABEL_SIZE), 0);
  tape_put_header(block.data(), 0, LABEL_SIZE, TAPE_BLOCK_LABEL);
  tape_encode_label(block.data(), fields);
  // Whatever the framing, the label is a record of its own, so that the
  // packed stream of the reel starts in the record after the label file.
  if (w.options.framing == TapeFraming::kBuffered) {
    if (write_record(w, block.data(), block.size()) != 0) return -1;
  } else if (put_block(w, block) != 0) {
    return -1;
  }
  for (const auto& record : label_file)
    if (write_record(w, record.data(), record.size(), false) != 0) return -1;
  if (MNT_TapeMark(w.slot) != 0) return fail(w, "tape mark failed");
  w.last_tape_no = fields.tape_no;
  w.last_name = fields.name;
  w.next_block_no = 1;
  return 0;
}

int reel_writer_block(TapeWriter& w, uint8_t type, const unsigned char* payload, size_t size,
                      const TapeBlockOverrides& overrides) {
  const size_t length = TAPE_HEADER_SIZE + size + (size & 1);
  if (length > static_cast<size_t>(TAPE_MAX_BLOCK)) return fail(w, "block too long");
  std::vector<unsigned char> block(length, 0);
  const uint16_t number = overrides.number.value_or(w.next_block_no);
  tape_put_header(block.data(), number, static_cast<int32_t>(length), type);
  if (overrides.words) tape_put_u16(block.data() + TAPE_OFF_LENGTH, *overrides.words);
  if (size > 0) std::memcpy(block.data() + TAPE_HEADER_SIZE, payload, size);
  w.next_block_no = static_cast<uint16_t>(number + 1);
  return put_block(w, block);
}

int reel_writer_end_save(TapeWriter& w) {
  return reel_writer_block(w, TAPE_BLOCK_END, nullptr, 0);
}

int reel_writer_description(TapeWriter& w, const std::vector<TapePathEntry>& path) {
  std::vector<unsigned char> payload(path.size() * PATH_ENTRY_SIZE, 0);
  for (size_t i = 0; i < path.size(); ++i) {
    if (path[i].name.size() > static_cast<size_t>(PATH_NAME_SIZE))
      return fail(w, "the name '" + path[i].name + "' is longer than 32 characters");
    tape_encode_path_entry(payload.data() + i * PATH_ENTRY_SIZE, path[i].name.c_str(),
                           path[i].type);
  }
  return reel_writer_block(w, TAPE_BLOCK_DESCRIPTION, payload.data(), payload.size());
}

int reel_writer_account(TapeWriter& w, const std::vector<TapePathEntry>& path) {
  w.account_path = path;
  w.file_path = path;
  return reel_writer_description(w, path);
}

int reel_writer_file(TapeWriter& w, const TapePathEntry& file) {
  w.file_path = w.account_path;
  w.file_path.push_back(file);
  return reel_writer_description(w, w.file_path);
}

int reel_writer_sub(TapeWriter& w, const std::vector<TapePathEntry>& below) {
  std::vector<TapePathEntry> path = w.file_path;
  path.insert(path.end(), below.begin(), below.end());
  return reel_writer_description(w, path);
}

int reel_writer_raw(TapeWriter& w, const unsigned char* bytes, size_t size) {
  if (w.options.framing == TapeFraming::kBuffered || w.options.framing == TapeFraming::kStream) {
    w.pending.insert(w.pending.end(), bytes, bytes + size);
    return flush_pending(w, false);
  }
  return write_record(w, bytes, size, false);
}

int reel_writer_mark(TapeWriter& w) {
  if (w.plain_file) return fail(w, "a plain file cannot carry a tape mark");
  if (flush_pending(w, true) != 0) return -1;
  return MNT_TapeMark(w.slot) == 0 ? 0 : fail(w, "tape mark failed");
}

int reel_writer_close(TapeWriter& w) {
  if (w.slot < 0) return 0;
  int result = flush_pending(w, true);
  if (MNT_TapeClose(w.slot) != 0 && result == 0) result = fail(w, "close failed");
  w.slot = -1;
  // A written reel comes off the drive: whoever mounts it next starts at
  // its beginning, as with a reel carried to another drive.
  MNT_TapeUnload(w.path.c_str());
  return result;
}

std::vector<unsigned char> reel_static_stream(const std::vector<TapeRecord>& records,
                                              int32_t chunk, bool end_mark) {
  std::vector<unsigned char> stream;
  for (const TapeRecord& r : records)
    tape_encode_static_record(stream, r.key, r.data, chunk, r.open_end, r.size_words);
  if (end_mark) stream.insert(stream.end(), RECORD_HEADER_SIZE, 0);
  return stream;
}

int reel_writer_stream(TapeWriter& w, uint16_t modulo, const std::vector<unsigned char>& stream,
                       const std::vector<size_t>& cuts, size_t room) {
  if (room < 2 || room % 2 != 0) return fail(w, "a block carries an even count of bytes");
  size_t at = 0;
  for (size_t block = 0; block == 0 || at < stream.size(); ++block) {
    const size_t want = block < cuts.size() ? cuts[block] : room;
    if (want % 2 != 0) return fail(w, "a block carries an even count of bytes");
    const size_t n = std::min(want, stream.size() - at);
    std::vector<unsigned char> payload;
    if (block == 0) {
      payload.resize(SUBFILE_FIRST_STREAM - TAPE_HEADER_SIZE, 0);
      tape_put_u16(payload.data() + SUBFILE_OFF_MODULO - TAPE_HEADER_SIZE, modulo);
    }
    payload.insert(payload.end(), stream.begin() + static_cast<std::ptrdiff_t>(at),
                   stream.begin() + static_cast<std::ptrdiff_t>(at + n));
    if (reel_writer_block(w, TAPE_BLOCK_DATA, payload.data(), payload.size()) != 0) return -1;
    at += n;
  }
  return 0;
}

int reel_writer_static_subfile(TapeWriter& w, uint16_t modulo,
                               const std::vector<TapeRecord>& records, size_t room,
                               int32_t chunk) {
  if (reel_writer_sub(w, {{"", TAPE_OBJECT_SAM}}) != 0) return -1;
  if (records.empty()) return 0;
  return reel_writer_stream(w, modulo, reel_static_stream(records, chunk), {}, room);
}

int reel_writer_text(TapeWriter& w, const std::string& text, size_t room) {
  if (room < 2 || room % 2 != 0) return fail(w, "a block carries an even count of bytes");
  std::vector<unsigned char> coded;
  if (!tape_encode_text(coded, text)) return fail(w, "the text holds a byte the tape form cannot carry");
  // Cut at even places, never between a blank run's code and its count
  // (a newline and its pad stand at even places and are never cut).
  std::vector<bool> inside(coded.size() + 1, false);
  for (size_t i = 0; i < coded.size(); ++i)
    if (coded[i] == TEXT_BLANK_RUN) inside[++i] = true;
  for (size_t at = 0; at < coded.size();) {
    size_t n = std::min(room, coded.size() - at);
    if (at + n < coded.size()) {
      n -= n % 2;
      while (n > 2 && inside[at + n]) n -= 2;
    }
    if (reel_writer_block(w, TAPE_BLOCK_DATA, coded.data() + at, n) != 0) return -1;
    at += n;
  }
  return 0;
}

// ---- Dynamic files ------------------------------------------------------------

namespace {

struct DynPage {
  DynPageHead head;
  std::vector<unsigned char> body;  // bytes behind the head
};

struct DynLayout {
  std::vector<DynPage> primary;
  std::vector<DynPage> large;
  std::vector<DynPage> chained;  // overflow pages of the group chains
  std::vector<DynPage> other;    // free pages and the index page
  int32_t index_page = 0;
  int32_t next_number = 0;
};

int32_t page_body(const TapeDynFile& f) { return f.units * DYN_PAGE_UNIT - DYN_PAGE_HEAD; }

// Cuts `bytes` into pages of a chain; the first takes `first_number`, the
// others numbers from the layout.
std::vector<DynPage> chain_pages(DynLayout& l, const TapeDynFile& f, const std::vector<unsigned char>& bytes,
                                 int32_t first_number, bool group_page, int32_t group, unsigned char kind) {
  const size_t room = static_cast<size_t>(page_body(f));
  std::vector<DynPage> pages;
  for (size_t at = 0; at == 0 || at < bytes.size(); at += room) {
    DynPage p;
    p.head.units = f.units;
    p.head.number = pages.empty() ? first_number : l.next_number++;
    p.head.kind = kind;
    p.head.group_page = group_page;
    p.head.group = group;
    const size_t n = std::min(room, bytes.size() - at);
    p.body.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.begin() + static_cast<std::ptrdiff_t>(at + n));
    p.body.resize(room, 0);
    if (!pages.empty()) pages.back().head.next = p.head.number;
    pages.push_back(std::move(p));
  }
  return pages;
}

std::vector<unsigned char> index_text(const std::vector<TapeDynIndex>& indexes) {
  int32_t d = 0, i = 0;
  for (const TapeDynIndex& x : indexes) (x.type == 'I' ? i : d) += 1;
  const std::string fm(1, static_cast<char>(TAPE_FM)), vm(1, static_cast<char>(TAPE_VM));
  std::string text = "INDEX" + fm + std::to_string(indexes.size()) + fm + fm + fm + fm + std::to_string(d) +
                     fm + std::to_string(i) + fm + fm + fm;
  for (const TapeDynIndex& x : indexes)
    text += fm + "0" + vm + x.name + vm + x.type + vm + std::to_string(x.number) + vm + x.letter;
  text += static_cast<char>(TAPE_RM);
  std::vector<unsigned char> out;
  for (char c : text) out.push_back(tape_flip(static_cast<unsigned char>(c)));
  return out;
}

int dyn_layout(TapeWriter& w, const TapeDynFile& f, DynLayout& l) {
  if (f.modulo < 1 || f.units < 1 || f.units > DYN_PAGE_MAX_UNITS)
    return fail(w, "a dynamic file has a modulo of 1 or more and pages of 1 to 4 units");
  l.next_number = f.modulo + 1;
  std::vector<std::vector<unsigned char>> groups(static_cast<size_t>(f.modulo));
  for (size_t i = 0; i < f.records.size(); ++i) {
    const TapeDynRecord& r = f.records[i];
    if (r.key.size() > 255) return fail(w, "a key has at most 255 bytes");
    if ((r.key + r.data).find('\x80') != std::string::npos)
      return fail(w, "a dynamic record cannot carry the byte 0x80");
    std::vector<unsigned char>& g = groups[static_cast<size_t>(reel_dyn_group(f, i))];
    const size_t in_line = DYN_REC_HEADER + r.key.size() + r.key.size() % 2 + r.data.size() + r.data.size() % 2;
    if (!r.large && in_line < static_cast<size_t>(DYN_INLINE_LIMIT)) {
      tape_encode_dyn_record(g, r.key, r.data);
      continue;
    }
    std::vector<unsigned char> data;
    for (char c : r.data) data.push_back(tape_flip_keep_zero(static_cast<unsigned char>(c)));
    std::vector<DynPage> pages = chain_pages(l, f, data, l.next_number++, false, 0, DYN_KIND_NO_CHAIN);
    tape_encode_dyn_record(g, r.key, "", static_cast<int32_t>(r.data.size()), pages.front().head.number);
    l.large.insert(l.large.end(), pages.begin(), pages.end());
  }
  for (int32_t g = 0; g < f.modulo; ++g) {
    std::vector<unsigned char>& bytes = groups[static_cast<size_t>(g)];
    bytes.push_back(DYN_MARK);
    bytes.push_back(DYN_MARK_END);
    std::vector<DynPage> pages = chain_pages(l, f, bytes, g + 1, true, g, 0);
    l.primary.push_back(std::move(pages.front()));
    l.chained.insert(l.chained.end(), std::make_move_iterator(pages.begin() + 1),
                     std::make_move_iterator(pages.end()));
  }
  if (f.order == TapeDynOrder::kReversed) std::reverse(l.chained.begin(), l.chained.end());
  for (int32_t i = 0; i < f.free_pages; ++i) {
    DynPage p;
    p.head = {.units = f.units, .number = l.next_number++, .kind = DYN_KIND_FREE};
    p.body.assign(static_cast<size_t>(page_body(f)), 0);
    l.other.push_back(std::move(p));
  }
  if (!f.indexes.empty()) {
    const std::vector<unsigned char> text = index_text(f.indexes);
    if (text.size() + DYN_INDEX_OFF_TEXT > static_cast<size_t>(f.units * DYN_PAGE_UNIT))
      return fail(w, "the index description does not fit its page");
    DynPage p;
    p.head = {.units = f.units, .number = l.next_number++, .kind = DYN_KIND_NO_CHAIN};
    p.body.assign(static_cast<size_t>(page_body(f)), 0);
    l.index_page = p.head.number;
    l.other.push_back(std::move(p));
  }
  return 0;
}

// The stream of one part: its header page, then its pages, with the damage
// asked for.
std::vector<unsigned char> part_stream(const TapeDynFile& f, const DynLayout& l,
                                       const std::vector<const DynPage*>& pages) {
  std::vector<unsigned char> out(DYN_PAGE_UNIT, 0);
  tape_put_u24(&out[DYN_HDR_OFF_MODULO - TAPE_HEADER_SIZE], f.modulo);
  tape_put_u24(&out[DYN_HDR_OFF_INDEX - TAPE_HEADER_SIZE], l.index_page);
  for (const DynPage* p : pages) {
    if (p->head.number == f.slip_page && f.slip_page > 0)
      out.resize(out.size() - std::min(out.size(), static_cast<size_t>(f.slip_bytes)));
    const size_t at = out.size();
    out.resize(at + DYN_PAGE_HEAD, 0);
    DynPageHead head = p->head;
    head.marked = head.number != f.unmarked_page;
    tape_encode_dyn_head(&out[at], head);
    out.insert(out.end(), p->body.begin(), p->body.end());
    if (p->head.number == l.index_page) {
      const std::vector<unsigned char> text = index_text(f.indexes);
      tape_put_u16(&out[at + DYN_INDEX_OFF_COUNT], static_cast<uint16_t>(text.size()));
      std::copy(text.begin(), text.end(), out.begin() + static_cast<std::ptrdiff_t>(at + DYN_INDEX_OFF_TEXT));
    }
  }
  return out;
}

struct DynBlocks {
  TapeWriter& w;
  const TapeDynFile& f;
  size_t written = 0;

  int block(const unsigned char* bytes, size_t n) {
    if (reel_writer_block(w, TAPE_BLOCK_DATA, bytes, n) != 0) return -1;
    if (++written == f.break_after && f.break_after > 0) {
      if (reel_writer_next_reel(w, f.next_reel) != 0 || reel_writer_label(w, {}) != 0) return -1;
    }
    return 0;
  }
  int part(const std::vector<unsigned char>& stream, const std::vector<size_t>& cuts) {
    if (reel_writer_sub(w, {{"", TAPE_OBJECT_DAM}}) != 0) return -1;
    size_t at = 0;
    for (size_t i = 0; at < stream.size(); ++i) {
      const size_t want = i < cuts.size() ? cuts[i] : f.room;
      if (want < 2 || want % 2 != 0) return fail(w, "a block carries an even count of bytes");
      const size_t n = std::min(want, stream.size() - at);
      if (block(stream.data() + at, n) != 0) return -1;
      at += n;
    }
    return 0;
  }
};

}  // namespace

int reel_writer_dyn_file(TapeWriter& w, const TapeDynFile& file) {
  DynLayout l;
  if (dyn_layout(w, file, l) != 0) return -1;
  std::vector<const DynPage*> primary, overflow;
  for (const DynPage& p : l.primary) primary.push_back(&p);
  for (const auto* list : {&l.large, &l.chained, &l.other})
    for (const DynPage& p : *list) overflow.push_back(&p);
  DynBlocks blocks{w, file};
  if (blocks.part(part_stream(file, l, primary), file.cuts) != 0) return -1;
  if (blocks.part(part_stream(file, l, overflow), {}) != 0) return -1;
  if (!file.third_subfile) return 0;
  return blocks.part(std::vector<unsigned char>(DYN_PAGE_UNIT * 2, 0), {});
}
