#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quillon {

// Case and diacritic folding of UTF-8 text, used by string comparisons in
// predicates and sort descriptors. Folding maps one code point to one code
// point (or drops a combining mark), which keeps it allocation-free when the
// caller supplies a reusable buffer. Covers ASCII, Latin-1, Latin Extended-A,
// Greek and Cyrillic; other code points fold to themselves. Stateless and
// thread-safe.

// Decodes the code point at s[*i] and advances *i. A malformed byte decodes to
// itself mapped into U+DC80..U+DCFF, so every input has a lossless reading.
char32_t decodeUtf8(std::string_view s, size_t* i);
void appendUtf8(char32_t c, std::string* out);

// Lower-case form of a code point.
char32_t foldCase(char32_t c);
// The base letter of an accented Latin letter; 0 for a combining mark (which
// then disappears from the folded text).
char32_t foldDiacritic(char32_t c);

struct FoldOptions {
  bool caseInsensitive = false;
  bool diacriticInsensitive = false;
  bool any() const { return caseInsensitive || diacriticInsensitive; }
};

// The next folded code point of s at *i, advancing *i past it (and past any
// dropped combining marks); kEndOfText when the text is exhausted.
inline constexpr char32_t kEndOfText = 0xFFFFFFFF;
// nextFolded() past ASCII: decodes, folds and skips dropped marks.
char32_t nextFoldedDecoding(std::string_view s, size_t* i, FoldOptions options);
inline char32_t nextFolded(std::string_view s, size_t* i, FoldOptions options) {
  if (*i < s.size()) {
    auto byte = static_cast<unsigned char>(s[*i]);
    if (byte < 0x80) {  // the common case, inline and without decoding
      ++*i;
      return options.caseInsensitive && byte >= 'A' && byte <= 'Z' ? byte + 32u : byte;
    }
  }
  return nextFoldedDecoding(s, i, options);
}

// Replaces *out with the folded code points of s (capacity is kept, so a
// buffer reused across calls stops allocating).
void foldText(std::string_view s, FoldOptions options, std::u32string* out);

// Replaces *out with the folded text as UTF-8, whose byte order is the order
// of compareFolded(): malformed bytes become their U+DC80..U+DCFF stand-ins.
// Used to fold sort keys once instead of once per comparison.
void foldTextToUtf8(std::string_view s, FoldOptions options, std::string* out);
// As foldTextToUtf8, appending to *out.
void appendFoldedUtf8(std::string_view s, FoldOptions options, std::string* out);

// Three-way comparison of two strings by folded code points; with no options
// this is plain code-point (byte) order.
int compareFolded(std::string_view a, std::string_view b, FoldOptions options);

}  // namespace quillon
