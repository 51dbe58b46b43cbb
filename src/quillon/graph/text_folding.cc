#include "quillon/graph/internal/text_folding.h"

#include <algorithm>

namespace quillon {
namespace {

// Base letters of U+00C0..U+00FF; '.' keeps the code point.
constexpr std::string_view kLatin1Bases =
    "AAAAAA.CEEEEIIII.NOOOOO.OUUUUY.."
    "aaaaaa.ceeeeiiii.nooooo.ouuuuy.y";
// Base letters of U+0100..U+017F.
constexpr std::string_view kLatinExtendedABases =
    "AaAaAaCcCcCcCcDdDdEeEeEeEeEeGgGgGgGgHhHhIiIiIiIiIi..JjKk.LlLlLlLlLlNnNnNnn..OoOoOo..RrRrRr"
    "SsSsSsSsTtTtTtUuUuUuUuUuUuWwYyYZzZzZzs";
static_assert(kLatinExtendedABases.size() == 0x80);

char32_t malformed(unsigned char byte) { return 0xDC00 + byte; }

}  // namespace

char32_t decodeUtf8(std::string_view s, size_t* i) {
  auto byte = static_cast<unsigned char>(s[*i]);
  if (byte < 0x80) {
    ++*i;
    return byte;
  }
  int extra;
  char32_t c;
  if ((byte & 0xE0) == 0xC0) {
    extra = 1;
    c = byte & 0x1F;
  } else if ((byte & 0xF0) == 0xE0) {
    extra = 2;
    c = byte & 0x0F;
  } else if ((byte & 0xF8) == 0xF0) {
    extra = 3;
    c = byte & 0x07;
  } else {
    ++*i;
    return malformed(byte);
  }
  if (*i + extra >= s.size()) {
    ++*i;
    return malformed(byte);
  }
  for (int k = 1; k <= extra; ++k) {
    auto next = static_cast<unsigned char>(s[*i + k]);
    if ((next & 0xC0) != 0x80) {
      ++*i;
      return malformed(byte);
    }
    c = (c << 6) | (next & 0x3F);
  }
  *i += extra + 1;
  return c;
}

void appendUtf8(char32_t c, std::string* out) {
  if (c >= 0xDC80 && c <= 0xDCFF) {  // a malformed byte read by decodeUtf8
    out->push_back(static_cast<char>(c - 0xDC00));
  } else if (c < 0x80) {
    out->push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (c >> 6)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (c >> 12)));
    out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (c >> 18)));
    out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

char32_t foldCase(char32_t c) {
  if (c < 0x80) return (c >= 'A' && c <= 'Z') ? c + 32 : c;
  if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return c + 32;
  if (c >= 0x100 && c <= 0x17F) {
    if (c == 0x130) return 'i';  // capital I with dot
    if (c == 0x178) return 0xFF;
    if (c == 0x17F) return c;
    bool oddUpper = (c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E);
    if (c == 0x138 || c == 0x149) return c;
    if (oddUpper) return (c & 1) ? c + 1 : c;
    return (c & 1) ? c : c + 1;
  }
  if (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) return c + 32;
  if (c >= 0x410 && c <= 0x42F) return c + 32;
  if (c >= 0x400 && c <= 0x40F) return c + 80;
  return c;
}

char32_t foldDiacritic(char32_t c) {
  if (c < 0xC0) return c;
  if (c <= 0xFF) {
    char base = kLatin1Bases[c - 0xC0];
    return base == '.' ? c : static_cast<char32_t>(base);
  }
  if (c <= 0x17F) {
    char base = kLatinExtendedABases[c - 0x100];
    return base == '.' ? c : static_cast<char32_t>(base);
  }
  if (c >= 0x300 && c <= 0x36F) return 0;  // combining diacritical marks
  return c;
}

void foldText(std::string_view s, FoldOptions options, std::u32string* out) {
  out->clear();
  size_t i = 0;
  for (char32_t c; (c = nextFolded(s, &i, options)) != kEndOfText;) out->push_back(c);
}

char32_t nextFoldedDecoding(std::string_view s, size_t* i, FoldOptions options) {
  while (*i < s.size()) {
    auto byte = static_cast<unsigned char>(s[*i]);
    if (byte < 0x80) {  // the common case, without decoding
      ++*i;
      return options.caseInsensitive && byte >= 'A' && byte <= 'Z' ? byte + 32 : byte;
    }
    char32_t c = decodeUtf8(s, i);
    if (options.diacriticInsensitive) {
      c = foldDiacritic(c);
      if (c == 0) continue;
    }
    return options.caseInsensitive ? foldCase(c) : c;
  }
  return kEndOfText;
}

void foldTextToUtf8(std::string_view s, FoldOptions options, std::string* out) {
  out->clear();
  appendFoldedUtf8(s, options, out);
}

void appendFoldedUtf8(std::string_view s, FoldOptions options, std::string* out) {
  out->reserve(out->size() + s.size());
  size_t i = 0;
  for (char32_t c; (c = nextFolded(s, &i, options)) != kEndOfText;) {
    if (c < 0x80) {
      out->push_back(static_cast<char>(c));
    } else if (c >= 0xDC80 && c <= 0xDCFF) {  // keep the stand-in, not the raw byte
      out->push_back(static_cast<char>(0xED));
      out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      appendUtf8(c, out);
    }
  }
}

int compareFolded(std::string_view a, std::string_view b, FoldOptions options) {
  if (!options.any()) {
    int r = a.compare(b);
    return r < 0 ? -1 : (r > 0 ? 1 : 0);
  }
  size_t i = 0, j = 0;
  for (;;) {
    char32_t ca = nextFolded(a, &i, options);
    char32_t cb = nextFolded(b, &j, options);
    if (ca == cb) {
      if (ca == kEndOfText) return 0;
      continue;
    }
    if (ca == kEndOfText || cb == kEndOfText) return ca == kEndOfText ? -1 : 1;  // a prefix first
    return ca < cb ? -1 : 1;
  }
}

}  // namespace quillon
