#include "reel/reel_tape_format.h"

#include <cstdio>
#include <algorithm>
#include <cstring>

#include "reel/reel_util.h"

namespace {

constexpr int kRevisionBase = 128;
constexpr int kRevisionStep = 16;

// `text` in tape text over `width` bytes, blank padded.
void put_tape_text(unsigned char* out, const char* text, int width) {
  const size_t length = std::strlen(text);
  for (int i = 0; i < width; ++i) {
    char c = static_cast<size_t>(i) < length ? text[i] : ' ';
    out[i] = tape_flip(static_cast<unsigned char>(c));
  }
}

// Month, day and year, in the order the date is written "MM-DD-YY".
constexpr int32_t kDateFieldOffsets[] = {LABEL_OFF_MONTH, LABEL_OFF_DAY, LABEL_OFF_YEAR};

}  // namespace

TapeLabel tape_decode_label(const unsigned char* label) {
  TapeLabel out;
  out.tape_no = label[LABEL_OFF_TAPE_NO];
  out.revision = (static_cast<int>(label[LABEL_OFF_REVISION]) - kRevisionBase) / kRevisionStep;
  reel_name_from_tape(out.name, label + LABEL_OFF_NAME, LABEL_NAME_SIZE);
  // Every byte of a date field is flipped, a zero byte too (unlike names,
  // where zero is filler); a byte that flips to zero ends its field's text.
  char fields[3][LABEL_DATE_FIELD + 1] = {};
  for (int f = 0; f < 3; ++f)
    for (int i = 0; i < LABEL_DATE_FIELD; ++i)
      fields[f][i] = static_cast<char>(tape_flip(label[kDateFieldOffsets[f] + i]));
  std::snprintf(out.date, sizeof out.date, "%s-%s-%s", fields[0], fields[1], fields[2]);
  return out;
}

void tape_encode_label(unsigned char* label, const TapeLabel& fields) {
  std::memset(label + TAPE_HEADER_SIZE, 0, LABEL_SIZE - TAPE_HEADER_SIZE);
  label[TAPE_OFF_TYPE] = TAPE_BLOCK_LABEL;
  label[LABEL_OFF_REVISION] =
      static_cast<unsigned char>(kRevisionBase + kRevisionStep * fields.revision);
  label[LABEL_OFF_TAPE_NO] = static_cast<unsigned char>(fields.tape_no);
  // The date is written "MM-DD-YY"; each two-digit field goes to its place.
  const size_t date_length = std::strlen(fields.date);
  for (int f = 0; f < 3; ++f)
    for (int i = 0; i < LABEL_DATE_FIELD; ++i) {
      size_t at = static_cast<size_t>(3 * f + i);
      char c = at < date_length ? fields.date[at] : ' ';
      label[kDateFieldOffsets[f] + i] = tape_flip(static_cast<unsigned char>(c));
    }
  put_tape_text(label + LABEL_OFF_NAME, fields.name, LABEL_NAME_SIZE);
}

int tape_path_name(char* name, const unsigned char* block, int32_t entry) {
  return reel_name_from_tape(name, block + entry + PATH_OFF_NAME, PATH_NAME_SIZE);
}

void tape_encode_path_entry(unsigned char* entry, const char* name, uint8_t type) {
  std::memset(entry, 0, PATH_ENTRY_SIZE);
  put_tape_text(entry + PATH_OFF_NAME, name, PATH_NAME_SIZE);
  entry[PATH_OFF_TYPE] = type;
}

void tape_encode_static_record(std::vector<unsigned char>& out, const std::string& key,
                               const std::string& data, int32_t chunk, bool open_end,
                               std::optional<int32_t> size_words) {
  const size_t start = out.size();
  out.resize(start + RECORD_HEADER_SIZE, 0);
  out[start + RECORD_OFF_KEY_LEN] = static_cast<unsigned char>(key.size());
  for (char c : key) out.push_back(tape_flip(static_cast<unsigned char>(c)));
  if (key.size() % 2 != 0) out.push_back(0);
  const size_t step = static_cast<size_t>(chunk < 1 ? 1 : chunk > CHUNK_MAX ? CHUNK_MAX : chunk);
  bool first = true;
  for (size_t at = 0; at < data.size(); at += step, first = !first) {
    const size_t n = std::min(step, data.size() - at);
    const size_t chunk_at = out.size();
    out.resize(chunk_at + CHUNK_HEADER_SIZE, 0);
    out[chunk_at + CHUNK_OFF_MARKER] = first ? CHUNK_MARKER : CHUNK_MARKER_ALT;
    out[chunk_at + CHUNK_OFF_LENGTH] = static_cast<unsigned char>(n);
    for (size_t i = 0; i < n; ++i) out.push_back(tape_flip(static_cast<unsigned char>(data[at + i])));
    if ((out.size() - start) % 2 != 0) out.push_back(0);
  }
  if (!open_end) out.insert(out.end(), CHUNK_HEADER_SIZE, 0);
  const int32_t words = size_words.value_or(static_cast<int32_t>((out.size() - start) / 2));
  tape_put_u24(&out[start + RECORD_OFF_SIZE], words);
}

bool tape_encode_text(std::vector<unsigned char>& out, const std::string& text) {
  for (char c : text)
    if (c == '\0' || static_cast<unsigned char>(c) == tape_flip(TEXT_BLANK_RUN)) return false;
  const size_t start = out.size();
  for (size_t i = 0; i < text.size();) {
    size_t run = 0;
    while (i + run < text.size() && text[i + run] == ' ' && run < TEXT_MAX_BLANK_RUN) ++run;
    if (run >= 3) {
      out.push_back(TEXT_BLANK_RUN);
      out.push_back(static_cast<unsigned char>(run));
      i += run;
      continue;
    }
    const bool even = (out.size() - start) % 2 == 0;
    out.push_back(tape_flip(static_cast<unsigned char>(text[i])));
    if (text[i] == '\n' && even) out.push_back(TEXT_FILL);
    ++i;
  }
  return true;
}

void tape_encode_dyn_head(unsigned char* page, const DynPageHead& head) {
  std::memset(page, 0, DYN_PAGE_HEAD);
  page[DYN_PAGE_OFF_UNITS] = static_cast<unsigned char>(head.units);
  tape_put_u24(page + DYN_PAGE_OFF_NUMBER, head.number);
  page[DYN_PAGE_OFF_MARK] = head.marked ? DYN_PAGE_MARK : 0;
  page[DYN_PAGE_OFF_KIND] = head.kind;
  page[DYN_PAGE_OFF_GROUP_PAGE] = head.group_page ? 1 : 0;
  page[DYN_PAGE_OFF_HAS_NEXT] = head.next > 0 ? 1 : 0;
  tape_put_u24(page + DYN_PAGE_OFF_NEXT, head.next);
  tape_put_u24(page + DYN_PAGE_OFF_GROUP, head.group);
}

void tape_encode_dyn_record(std::vector<unsigned char>& out, const std::string& key,
                            const std::string& data, int32_t data_len, int32_t first_page) {
  const size_t start = out.size();
  out.resize(start + DYN_REC_HEADER, 0);
  out[start + DYN_REC_OFF_KEY_LEN] = static_cast<unsigned char>(key.size());
  for (char c : key) out.push_back(tape_flip_keep_zero(static_cast<unsigned char>(c)));
  if (key.size() % 2 != 0) out.push_back(0);
  if (first_page == 0) {
    for (char c : data) out.push_back(tape_flip_keep_zero(static_cast<unsigned char>(c)));
    if (data.size() % 2 != 0) out.push_back(0);
  }
  const int32_t length = data_len >= 0 ? data_len : static_cast<int32_t>(data.size());
  tape_put_u16(&out[start + DYN_REC_OFF_SIZE], static_cast<uint16_t>((out.size() - start) / 2));
  tape_put_u24(&out[start + DYN_REC_OFF_DATA_LEN], length);
  tape_put_u24(&out[start + DYN_REC_OFF_FIRST_PAGE], first_page);
}
