#include "quillon/base/url.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <string_view>

namespace quillon {
namespace {

// The characters a path keeps as they are; every other byte is written %XX.
constexpr std::array<bool, 256> kUnreservedPathChars = [] {
  std::array<bool, 256> table{};
  for (int c = 'a'; c <= 'z'; ++c) table[c] = true;
  for (int c = 'A'; c <= 'Z'; ++c) table[c] = true;
  for (int c = '0'; c <= '9'; ++c) table[c] = true;
  for (unsigned char c : std::string_view("-._~/!$&'()*+,;=:@")) table[c] = true;
  return table;
}();

bool isUnreservedPathChar(unsigned char c) { return kUnreservedPathChars[c]; }

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Splits "scheme://host/path?query#fragment" far enough for our needs.
struct Parts {
  std::string scheme, host, path, rest;
  bool hasScheme = false;
};

// The first of `a` or `b` in `s` from `from`, npos when neither occurs.
// (std::string_view::find_first_of looks up its set once per character.)
size_t findEither(std::string_view s, char a, char b, size_t from = 0) {
  for (size_t i = from; i < s.size(); ++i) {
    if (s[i] == a || s[i] == b) return i;
  }
  return std::string_view::npos;
}

Parts split(std::string_view s) {
  Parts p;
  size_t colon = s.find(':');
  if (colon != std::string_view::npos && colon > 0 &&
      s.substr(0, colon).find('/') == std::string_view::npos) {
    p.hasScheme = true;
    p.scheme = std::string(s.substr(0, colon));
    s.remove_prefix(colon + 1);
  }
  if (s.starts_with("//")) {
    s.remove_prefix(2);
    size_t end = std::min(s.find('/'), findEither(s, '?', '#'));
    p.host = std::string(s.substr(0, end));
    s.remove_prefix(end == std::string_view::npos ? s.size() : end);
  }
  size_t end = findEither(s, '?', '#');
  p.path = std::string(s.substr(0, end));
  if (end != std::string_view::npos) p.rest = std::string(s.substr(end));
  return p;
}

// Whether an absolute path is already normal: no empty, "." or ".." segment.
bool isNormal(std::string_view path) {
  if (!path.starts_with('/')) return false;
  for (size_t i = 0; i < path.size(); ++i) {
    if (path[i] != '/') continue;
    std::string_view next = path.substr(i + 1);
    if (next.starts_with('/') && i + 1 < path.size()) return false;
    if (next == "." || next == ".." || next.starts_with("./") || next.starts_with("../")) {
      return false;
    }
  }
  return true;
}

// Resolves "." and ".." segments of an absolute path.
std::string normalise(const std::string& path) {
  if (isNormal(path)) return path;
  std::vector<std::string> out;
  bool trailing = path.ends_with('/');
  size_t i = 0;
  while (i < path.size()) {
    size_t j = path.find('/', i);
    if (j == std::string::npos) j = path.size();
    std::string seg = path.substr(i, j - i);
    bool last = j == path.size();
    if (seg == "..") {
      if (!out.empty()) out.pop_back();
      if (last) trailing = true;
    } else if (seg == ".") {
      if (last) trailing = true;
    } else if (!seg.empty()) {
      out.push_back(seg);
    }
    i = j + 1;
  }
  std::string result;
  for (const auto& seg : out) result += "/" + seg;
  if (result.empty() || trailing) result += "/";
  return result;
}

}  // namespace

std::string Url::percentEncodePath(std::string_view path) {
  static const char* hex = "0123456789ABCDEF";
  size_t plain = 0;
  while (plain < path.size() && isUnreservedPathChar(static_cast<unsigned char>(path[plain]))) {
    ++plain;
  }
  if (plain == path.size()) return std::string(path);
  std::string out;
  out.reserve(path.size());
  for (unsigned char c : path) {
    if (isUnreservedPathChar(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

std::string Url::percentDecode(std::string_view text) {
  if (text.find('%') == std::string_view::npos) return std::string(text);
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      int hi = hexValue(text[i + 1]), lo = hexValue(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out += static_cast<char>(hi * 16 + lo);
        i += 2;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

Url Url::fileURL(std::string_view path, bool isDirectory) {
  std::string absolute(path);
  if (!absolute.starts_with('/')) {
    char cwd[PATH_MAX];
    std::string base = getcwd(cwd, sizeof cwd) ? cwd : "/";
    absolute = base + "/" + absolute;
  }
  absolute = normalise(absolute);
  if (!isDirectory && absolute.size() > 1 && absolute.ends_with('/')) absolute.pop_back();
  if (isDirectory && !absolute.ends_with('/')) absolute += '/';
  Url u;
  u.relative_ = "file://" + percentEncodePath(absolute);
  return u;
}

std::optional<Url> Url::parse(std::string_view text, const Url* base) {
  if (text.empty()) return std::nullopt;
  for (unsigned char c : text) {
    if (c <= 0x20 || c >= 0x7f) return std::nullopt;
  }
  Url u;
  u.relative_ = std::string(text);
  if (base && !split(text).hasScheme) u.base_ = std::make_shared<Url>(*base);
  return u;
}

std::string Url::absoluteString() const {
  if (!base_) return relative_;
  Parts b = split(base_->absoluteString());
  Parts r = split(relative_);
  std::string path;
  if (!r.host.empty() || relative_.starts_with("//")) {
    return b.scheme + ":" + relative_;
  }
  if (r.path.starts_with('/')) {
    path = r.path;
  } else if (r.path.empty()) {
    path = b.path;
  } else {
    size_t slash = b.path.rfind('/');
    path = (slash == std::string::npos ? "/" : b.path.substr(0, slash + 1)) + r.path;
  }
  path = normalise(path);
  std::string out = b.scheme + "://" + b.host + path;
  return out + (r.path.empty() && r.rest.empty() ? b.rest : r.rest);
}

Url Url::absoluteURL() const {
  Url u;
  u.relative_ = absoluteString();
  return u;
}

std::string Url::scheme() const { return split(absoluteString()).scheme; }
std::string Url::host() const { return split(absoluteString()).host; }
bool Url::isFileURL() const { return scheme() == "file"; }

std::string Url::path() const {
  std::string p = percentDecode(split(absoluteString()).path);
  if (p.size() > 1 && p.ends_with('/')) p.pop_back();
  return p;
}

bool Url::hasDirectoryPath() const { return split(absoluteString()).path.ends_with('/'); }

std::vector<std::string> Url::pathComponents() const {
  std::vector<std::string> out;
  std::string p = path();
  if (p.starts_with('/')) out.emplace_back("/");
  size_t i = 0;
  while (i < p.size()) {
    size_t j = p.find('/', i);
    if (j == std::string::npos) j = p.size();
    if (j > i) out.push_back(p.substr(i, j - i));
    i = j + 1;
  }
  return out;
}

std::string Url::lastPathComponent() const {
  auto c = pathComponents();
  return c.empty() ? std::string() : c.back();
}

std::string Url::pathExtension() const {
  std::string last = lastPathComponent();
  size_t dot = last.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == last.size()) return {};
  return last.substr(dot + 1);
}

Url Url::appending(std::string_view component, bool isDirectory) const {
  Parts p = split(absoluteString());
  std::string path = p.path;
  if (!path.ends_with('/')) path += '/';
  std::string_view c = component;
  while (c.starts_with('/')) c.remove_prefix(1);
  path += percentEncodePath(c);
  if (isDirectory && !path.ends_with('/')) path += '/';
  if (!isDirectory && path.size() > 1 && path.ends_with('/')) path.pop_back();
  Url u;
  u.relative_ = p.scheme + "://" + p.host + path + p.rest;
  return u;
}

Url Url::appendingPathExtension(std::string_view extension) const {
  Parts p = split(absoluteString());
  bool dir = p.path.ends_with('/');
  std::string path = p.path;
  if (dir) path.pop_back();
  path += "." + percentEncodePath(extension);
  if (dir) path += '/';
  Url u;
  u.relative_ = p.scheme + "://" + p.host + path + p.rest;
  return u;
}

Url Url::deletingLastPathComponent() const {
  Parts p = split(absoluteString());
  std::string path = p.path;
  if (path.size() > 1 && path.ends_with('/')) path.pop_back();
  size_t slash = path.rfind('/');
  path = slash == std::string::npos ? "/" : path.substr(0, slash + 1);
  Url u;
  u.relative_ = p.scheme + "://" + p.host + path;
  return u;
}

Url Url::deletingPathExtension() const {
  std::string ext = pathExtension();
  if (ext.empty()) return *this;
  Parts p = split(absoluteString());
  bool dir = p.path.ends_with('/');
  std::string path = p.path;
  if (dir) path.pop_back();
  path.resize(path.size() - percentEncodePath(ext).size() - 1);
  if (dir) path += '/';
  Url u;
  u.relative_ = p.scheme + "://" + p.host + path + p.rest;
  return u;
}

Url Url::asDirectory(bool isDirectory) const {
  Parts p = split(absoluteString());
  std::string path = p.path;
  if (isDirectory && !path.ends_with('/')) path += '/';
  if (!isDirectory && path.size() > 1 && path.ends_with('/')) path.pop_back();
  Url u;
  u.relative_ = p.scheme + "://" + p.host + path + p.rest;
  return u;
}

}  // namespace quillon
