// The project's tape writer: makes reels in the foreign system's format on
// any medium of the tape layer, in any of the framings the reader knows, so
// that tests and users can produce tapes to restore.
//
// A reel is one medium (a ".tap" image, a plain file, or a drive): the
// label block and a tape mark, numbered blocks, and a tape mark at the end
// (the tape layer writes it when the medium is closed). Block numbers start
// at 1 on each reel and wrap from 65535 to 0.
//
// Framings, matching the reader's transports:
//   plain      one block per physical record; with record_size > 0 every
//              record is padded with zeros to that size (a plain file needs
//              it, since the reader takes tape_block_size bytes at a time)
//   buffered   (-G B) blocks end to end in a byte stream, cut into records
//              of stream_record bytes; the label stays a record of its own
//   cartridge  (-G C) each block in 512-byte frames of up to 508 bytes of
//              payload, each frame a record
//   stream     (unit 9) blocks end to end in a plain file
// A plain file carries neither labels nor tape marks; the writer refuses
// them there rather than make a reel the reader would misread.
//
// convert_mode writes the inverse of the reader's -M conversion, so that a
// tape read with the same -M gives back the bytes handed to the writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "reel/reel_tape_format.h"

enum class TapeFraming { kPlain, kBuffered, kCartridge, kStream };

struct TapeWriterOptions {
  TapeFraming framing = TapeFraming::kPlain;
  char convert_mode = '0';
  int32_t record_size = 0;                        // plain framing only
  int32_t stream_record = TAPE_STREAM_REQUEST;    // buffered framing only
};

// Choices for one block that break the rules on purpose (damaged tapes).
struct TapeBlockOverrides {
  std::optional<uint16_t> number;  // this block's number; the next follows it
  std::optional<uint16_t> words;   // the header's length field, in words
};

// One level of a description's path: the object's name (plain text, at
// most PATH_NAME_SIZE characters; the writer puts it in tape text) and its
// object type.
struct TapePathEntry {
  std::string name;
  uint8_t type = TAPE_OBJECT_DIR;
};

// Not copyable: the device slot it opened must be closed exactly once.
struct TapeWriter {
  TapeWriter() = default;
  TapeWriter(const TapeWriter&) = delete;
  TapeWriter& operator=(const TapeWriter&) = delete;
  TapeWriter(TapeWriter&&) = default;
  TapeWriter& operator=(TapeWriter&&) = default;

  TapeWriterOptions options;
  int slot = -1;
  bool plain_file = false;
  std::string path;
  uint16_t next_block_no = 1;
  int32_t last_tape_no = 0;         // tape number of the last label written
  std::string last_name;            // tape name of the last label written
  std::vector<unsigned char> pending;  // buffered/stream bytes not yet written
  int32_t lossy_bytes = 0;          // bytes the -M 1 inverse could not represent
  std::string error;                // what the last failure was
  // The path of the account described last, and of the file described
  // last in it; sub-object descriptions hang below them.
  std::vector<TapePathEntry> account_path;
  std::vector<TapePathEntry> file_path;
};

// Each returns 0, or -1 with w.error set.

// Opens `path` for writing, from its start, emptying it.
int reel_writer_open(TapeWriter& w, const std::string& path, const TapeWriterOptions& options);
// Closes the current reel and opens the next at `path`, keeping the
// options and the label numbering.
int reel_writer_next_reel(TapeWriter& w, const std::string& path);
// Writes the label block, the rest of the label file (records as they are,
// unconverted) and the tape mark behind it; block numbers start again at 1.
// A tape_no of 0 takes the last one plus 1, an empty name the last one
// ("SAVE" on the first reel), an empty date "01-01-92".
int reel_writer_label(TapeWriter& w, const TapeLabel& label,
                      const std::vector<std::vector<unsigned char>>& label_file = {});
// Writes a block of `type` with the payload behind the header; an odd
// payload gets a zero byte, since blocks are whole words.
int reel_writer_block(TapeWriter& w, uint8_t type, const unsigned char* payload, size_t size,
                      const TapeBlockOverrides& overrides = {});
// The end-of-save block.
int reel_writer_end_save(TapeWriter& w);
// A description block of `path`, entries from the top of the save down to
// the object described.
int reel_writer_description(TapeWriter& w, const std::vector<TapePathEntry>& path);
// Descriptions that follow the shape of a save. An account's path has as
// many entries as the level the reader is told with -L (the last one the
// account itself, the ones before it its parents); a file's path is the
// account's and the file; a sub-object's (sub-file, directory member, or
// with more entries a deeper path) is the file's and `below`.
int reel_writer_account(TapeWriter& w, const std::vector<TapePathEntry>& path);
int reel_writer_file(TapeWriter& w, const TapePathEntry& file);
int reel_writer_sub(TapeWriter& w, const std::vector<TapePathEntry>& below);
// Bytes that no block can describe (damage): a record of exactly these
// bytes, unconverted, in the plain and cartridge framings; in the buffered
// and stream framings they join the byte stream and its conversion.
int reel_writer_raw(TapeWriter& w, const unsigned char* bytes, size_t size);
// A tape mark (not on a plain file).
int reel_writer_mark(TapeWriter& w);
// Writes what is pending and closes the reel; an image or a drive gets its
// closing tape mark; the medium is unloaded (an image or a file forgets its
// kept position, so the next open starts at its beginning).
int reel_writer_close(TapeWriter& w);

// ---- Static hashed files and members ----------------------------------------

// A record of a static hashed file, as the account holds it: key and data
// in plain bytes. The last two fields damage it on purpose.
struct TapeRecord {
  std::string key;   // at most 255 bytes
  std::string data;
  bool open_end = false;              // no end mark: the next header ends it
  std::optional<int32_t> size_words;  // the size its header claims
};

// The byte stream of one static sub-file: the records, each in chunks of
// at most `chunk` bytes, then (with `end_mark`) the size 0 that ends the
// sub-file.
std::vector<unsigned char> reel_static_stream(const std::vector<TapeRecord>& records,
                                              int32_t chunk = CHUNK_MAX, bool end_mark = true);
// Lays a sub-file's stream in data blocks: the first holds the source
// modulo at offset 10 and the stream from 12, the others the stream from
// 6. Block i carries cuts[i] bytes of the stream; the rest goes in blocks
// of `room` bytes. Cuts and room are even (blocks are whole words), so a
// record, its header, key or chunk is cut wherever they fall.
int reel_writer_stream(TapeWriter& w, uint16_t modulo, const std::vector<unsigned char>& stream,
                       const std::vector<size_t>& cuts = {}, size_t room = 1024);
// A static sub-file: its description below the last file, and its records
// in data blocks of `room` bytes (no data block at all without records).
int reel_writer_static_subfile(TapeWriter& w, uint16_t modulo,
                               const std::vector<TapeRecord>& records, size_t room = 1024,
                               int32_t chunk = CHUNK_MAX);
// A member's text in the compressed form, in data blocks of at most `room`
// (even) bytes; no pair of the form is cut by a block end. Text holding a
// byte the form cannot carry is refused.
int reel_writer_text(TapeWriter& w, const std::string& text, size_t room = 2048);

// ---- Dynamic files ------------------------------------------------------------

// A record of a dynamic file, in plain bytes (a byte 0x80 cannot be carried:
// it would read back as 0).
struct TapeDynRecord {
  std::string key;      // at most 255 bytes
  std::string data;
  bool large = false;   // data in a chain of pages of its own; also whenever
                        // the record would not stay below DYN_INLINE_LIMIT in line
};

// One index of the file's index description page.
struct TapeDynIndex {
  std::string name;
  char type = 'D';
  int32_t number = 0;
  char letter = 'N';
};

enum class TapeDynOrder {
  kChain,     // overflow pages of a group in the order of its chain
  kReversed,  // all of them the other way round: most arrive before their group
};

// A dynamic file as the writer lays it out. Group g's chain starts at
// primary page g + 1 and goes on in overflow pages; the group's records run
// through the chain as one stream, cut wherever a page ends, closed by the
// end mark. Overflow pages are numbered from modulo + 1: first the pages of
// large records, then the groups' pages, then free pages, then the index
// page. Every page has `units` units.
struct TapeDynFile {
  int32_t modulo = 1;  // source modulo, 1 or more
  int32_t units = 1;   // 1..DYN_PAGE_MAX_UNITS
  std::vector<TapeDynRecord> records;  // record i goes to group i % modulo
  std::vector<TapeDynIndex> indexes;   // with any, an index description page
  int32_t free_pages = 0;
  TapeDynOrder order = TapeDynOrder::kChain;
  size_t room = 4096;          // stream bytes per data block (even)
  std::vector<size_t> cuts;    // primary part: stream bytes of its first blocks
  bool third_subfile = false;  // a third direct sub-file with one data block
  // Damage: `slip_bytes` bytes of the stream dropped right before page
  // `slip_page` (take them from unused room of the page before it); page
  // `unmarked_page` written without its mark.
  int32_t slip_page = 0;
  int32_t slip_bytes = 0;
  int32_t unmarked_page = 0;
  // After this many data blocks of the file, the reel ends and the rest
  // goes to a new reel at `next_reel` (with a label); 0 for none.
  size_t break_after = 0;
  std::string next_reel;
};

// Group of record `index` of `file` in the source.
inline int32_t reel_dyn_group(const TapeDynFile& file, size_t index) {
  return static_cast<int32_t>(index % static_cast<size_t>(file.modulo));
}
// Writes the file's two direct sub-files (descriptions below the last file
// and their data blocks), and the third when asked.
int reel_writer_dyn_file(TapeWriter& w, const TapeDynFile& file);

// Tape text: each character with its high bit set, as names and text stand
// on the foreign tape.
std::vector<unsigned char> reel_tape_text(const std::string& text);
