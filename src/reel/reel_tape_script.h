// The text form of a tape for the tape writer, as mkreel reads it.
//
// One directive per line; "#" starts a comment outside quotes.
//
//   framing plain|buffered|cartridge|stream   applies from the next "tape"
//   record N        plain framing: pad every record to N bytes (0: exact)
//   convert 0|1|2|3 write what reading with that -M gives back
//   tape PATH       start a reel on PATH (".tap": an image, else a plain
//                   file); the reel before it is closed with a tape mark
//   label [no=N] [name=NAME] [date=MM-DD-YY] [rev=N]
//                   the label and its tape mark; block numbers restart at
//                   1; no defaults to the last label's plus 1, name to the
//                   last label's
//   number N        the number of the next block
//   block TYPE [no=N] [words=N] ITEM...
//                   a block; TYPE is data (1), description (2), end (5) or
//                   a number; no= and words= force the header's number and
//                   length field (in words)
//   account [NAME...] [type=T]
//                   an account description: its path from the top of the
//                   save, as many names as the reader's -L level (none for
//                   -L0); parents are directories, the account's own type
//                   is T (default dir)
//   file NAME T     a file description in the last account
//   sub NAME T [NAME T...]
//                   a description below the last file: a sub-file or a
//                   member, and with more pairs a deeper path
//                   object types T: sam (0), dam (1), hashed (2), dir (4),
//                   or a number
//   end             the end-of-save block
//   mark            a tape mark
//   raw ITEM...     bytes without a header (damage)
//   subfile [modulo=N] [room=N] [chunk=N]
//                   a static sub-file below the last file; the item lines
//                   that follow are its records, laid in data blocks of
//                   room bytes (default 1024) with chunks of at most chunk
//                   bytes (default 255)
//   item KEY [DATA...]
//                   a record of the sub-file or dynamic file above: key and
//                   data as plain text
//   dynfile [modulo=N] [units=N] [room=N] [first=N] [order=chain|reversed]
//           [free=N] [slip=PAGE:BYTES] [nomark=PAGE] [third]
//                   a dynamic file's two direct sub-files below the last
//                   file; the item, large and index lines that follow are
//                   its records and indexes (layout in reel_tape_writer.h)
//   large KEY [repeat=N] DATA...
//                   a record of the dynamic file whose data stands in a
//                   page chain of its own; repeat=N writes the data N times
//   index NAME TYPE NUMBER LETTER
//                   an index of the dynamic file on its description page
//   text [room=N] [repeat=N] TEXT...
//                   member text, compressed, in data blocks of at most room
//                   bytes (default 2048); repeat=N writes it N times
//
// ITEMs make the payload, in order:
//   "text"    tape text: every character with its high bit set
//   'text'    the bytes as they are
//   hex:HH..  bytes in hexadecimal
//   zeros:N   N zero bytes
//   u16:N     a big-endian 16-bit number
// Inside quotes \\ \" \' \n \t and \xHH stand for the obvious bytes.
// Keys, data and member text are words or quoted texts taken as they are
// (the writer puts them in their tape form); several are joined.
#pragma once

#include <istream>
#include <string>

// Writes the tapes the script describes, relative to the working
// directory. Returns 0, or -1 with "line N: what" in *error.
int reel_run_tape_script(std::istream& in, std::string* error);
