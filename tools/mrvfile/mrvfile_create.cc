#include <unistd.h>

#include <cstdio>

#include "flib/fl_create.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_globals.h"
#include "mrvfile.h"

int mrvfile_create(const Args& args) {
  bool dynamic = false;
  bool keydata = false;
  long modulo = 1, block = 1, hash = 0, spread = 0;
  std::string path;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    long* target = a == "--modulo" ? &modulo : a == "--block" ? &block : a == "--hash" ? &hash
                                             : a == "--spread" ? &spread : nullptr;
    if (a == "--dynamic") {
      dynamic = true;
    } else if (a == "--keydata") {
      keydata = true;
    } else if (target != nullptr) {
      if (i + 1 >= args.size() || !mrvfile_number(args[++i], target)) return mrvfile_usage();
    } else if (path.empty() && !a.empty() && a[0] != '-') {
      path = a;
    } else {
      return mrvfile_usage();
    }
  }
  if (path.empty()) return mrvfile_usage();
  // KEYDATA accounting belongs to dynamic files: it makes one.
  if (keydata) dynamic = true;
  if (modulo < 1 || block < BlockSizeCode::kMin || block > BlockSizeCode::kMax || hash < 0 || hash > (dynamic ? 1 : 2) || spread < 0 ||
      spread > 255) {
    std::fprintf(stderr, "mrvfile: modulo must be 1 or more, block 0..16, hash 0..%d, spread 0..255\n",
                 dynamic ? 1 : 2);
    return 2;
  }
  M_spread = static_cast<int32_t>(spread);
  int32_t type = static_cast<int32_t>(hash) | (dynamic ? HASH_DYNAMIC : 0) | (keydata ? HASH_KEYDATA : 0);
  if (M_create_hashed(path.c_str(), static_cast<int32_t>(modulo), static_cast<int32_t>(block), type, 0,
                      nullptr) != 1) {
    std::fprintf(stderr, "mrvfile: %s: cannot create: %s\n", path.c_str(),
                 access(path.c_str(), F_OK) == 0 ? "it exists already" : "the directory refuses it or the disk is full");
    return 1;
  }
  return 0;
}
