// Assertions, exceptions, reference counting and strings.

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <ostream>
#include <sstream>
#include <vector>

#include "kiv/Exception.h"
#include "kiv/Pool.h"
#include "kiv/Ptr.h"
#include "kiv/Reactor.h"
#include "kiv/String.h"

namespace Kiv {

void assertionFailed(char const* expr, char const* file, int line, char const* function) {
  std::fprintf(stderr, "assertion failed: %s (%s:%d, %s)\n", expr, file, line, function);
  std::fflush(stderr);
  std::abort();
}

void throwRangeException(std::string const& what) { throw RangeException(what); }
void throwNameInUseException(std::string const& what) { throw NameInUseException(what); }
void throwInternalException(std::string const& what) { throw InternalException(what); }
void throwNullValidPtr() { throwRangeException("null ValidPtr"); }

bool Expect::operator()(bool condition, std::string what) {
  if (!condition) failed_.push_back(std::move(what));
  return condition;
}

void Expect::check() {
  if (failed_.empty()) return;
  std::string text = "expectation failed: ";
  for (std::size_t i = 0; i < failed_.size(); ++i) text += (i ? "; " : "") + failed_[i];
  failed_.clear();
  throwInternalException(text);
}

std::string reinstantiationText(std::string const& subject, std::string_view attr,
                                std::string const& newValue, std::string const& currentValue) {
  std::string t = subject;
  t += " where constructor parameter attribute _";
  t += attr;
  t += " has a different value of ";
  t += newValue;
  t += " than the current value of ";
  t += currentValue;
  t += " not allowed";
  return t;
}

void throwNullParameter(std::string_view attr, std::string_view className) {
  std::string t = "null _";
  t += attr;
  t += " parameter to mutator for ";
  t += className;
  t += "::";
  t += attr;
  t += " not allowed";
  throwRangeException(t);
}

// --- PtrInterface ---

namespace {
std::vector<PtrInterface*>& deferredQueue() {
  static std::vector<PtrInterface*> queue;
  return queue;
}
}  // namespace

PtrInterface::~PtrInterface() {
  KIV_DEBUG_ASSERT(refs_.load(std::memory_order_relaxed) == 0 && "deleted while referenced");
}

void PtrInterface::handleZeroRef() {
  // An observer may take and drop a reference while being told; that must not recurse.
  if (inZeroRef_) return;
  inZeroRef_ = true;
  zeroReferencesIs(true);
  inZeroRef_ = false;
  if (references() != 0) {
    zeroReferencesIs(false);  // resurrected by an observer
    return;
  }
  if (markedForDeletion_) {
    // Once only: code holding a plain pointer may take and drop references before the pass.
    if (!queuedForDeletion_) deferredQueue().push_back(this);
    queuedForDeletion_ = true;
    return;
  }
  delete this;
}

void PtrInterface::deleteDeferred() {
  auto& q = deferredQueue();
  while (!q.empty()) {
    std::vector<PtrInterface*> batch;
    batch.swap(q);
    for (PtrInterface* p : batch) {
      p->queuedForDeletion_ = false;
      if (p->references() == 0) delete p;  // else resurrected since; its next zero queues it again
    }
  }
}

std::size_t PtrInterface::deferredDeletions() { return deferredQueue().size(); }

std::string PtrInterface::kivStrep() const {
  std::ostringstream os;
  os << static_cast<void const*>(this);
  return os.str();
}

// --- String ---

std::size_t String::hashOf(std::string_view s) {
  std::size_t h = kEmptyHash;  // FNV-1a
  for (unsigned char c : s) {
    h ^= c;
    h *= 1099511628211ull;
  }
  return h;
}

String::String(std::string_view s) {
  if (s.empty()) return;
  void* mem = poolAllocate(offsetof(Rep, data) + s.size() + 1);
  rep_ = new (mem) Rep{{1}, static_cast<std::uint32_t>(s.size()), hashOf(s), {0}};
  std::memcpy(rep_->data, s.data(), s.size());
  rep_->data[s.size()] = '\0';
}

void String::dec() const {
  if (!rep_) return;
  std::uint32_t left;
  if (VFPtrInterface::enableThreadSafePointers) {
    left = rep_->refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
  } else {
    left = rep_->refs.load(std::memory_order_relaxed) - 1;
    rep_->refs.store(left, std::memory_order_relaxed);
  }
  if (left == 0) {
    std::size_t const bytes = offsetof(Rep, data) + rep_->size + 1;
    rep_->~Rep();
    poolRelease(rep_, bytes);
  }
}

String String::substr(std::size_t start, std::size_t length) const {
  std::string_view v = view();
  if (start >= v.size()) return String();
  if (start == 0 && length >= v.size()) return *this;
  return String(v.substr(start, length));
}

namespace {
int toPos(std::size_t p) { return p == std::string_view::npos ? String::npos : static_cast<int>(p); }
}  // namespace

int String::pos(std::string_view needle, std::size_t start) const { return toPos(view().find(needle, start)); }
int String::pos(char c, std::size_t start) const { return toPos(view().find(c, start)); }
int String::lastPos(std::string_view needle, std::size_t start) const {
  return toPos(view().rfind(needle, start));
}
int String::lastPos(char c, std::size_t start) const { return toPos(view().rfind(c, start)); }

String operator+(String const& a, String const& b) {
  if (a.empty()) return b;
  if (b.empty()) return a;
  std::string s;
  s.reserve(a.size() + b.size());
  s.append(a.view()).append(b.view());
  return String(s);
}
String operator+(String const& a, char const* b) { return a + String(b); }
String operator+(char const* a, String const& b) { return String(a) + b; }

std::ostream& operator<<(std::ostream& os, String const& s) { return os << s.view(); }

std::string quoted(std::string_view s) {
  std::string q = "'";
  for (char c : s) {
    if (c == '\'' || c == '\\') q += '\\';
    q += c;
  }
  q += '\'';
  return q;
}

}  // namespace Kiv

// --- text forms of values ---

#include "kiv/Generated.h"

namespace Kiv {

void ValueTextReader::fail(std::string_view wanted) const {
  throwRangeException("cannot read value text \"" + std::string(text_) + "\" at offset " + std::to_string(at_) +
                      ": expected " + std::string(wanted));
}

void ValueTextReader::expect(std::string_view piece) {
  if (text_.substr(at_, piece.size()) != piece) {
    std::string quotedPiece;  // in steps: GCC 12 at -O3 warns falsely on "\"" + std::string(piece)
    quotedPiece.append(1, '"').append(piece).append(1, '"');
    fail(quotedPiece);
  }
  at_ += piece.size();
}

void ValueTextReader::end() {
  if (at_ != text_.size()) fail("the end of the text");
}

String ValueTextReader::readString() {
  if (at_ >= text_.size() || text_[at_] != '\'') fail("a quoted string");
  std::string out;
  for (std::size_t i = at_ + 1; i < text_.size(); ++i) {
    char c = text_[i];
    if (c == '\\' && i + 1 < text_.size()) {
      out += text_[++i];
    } else if (c == '\'') {
      at_ = i + 1;
      return String(out);
    } else {
      out += c;
    }
  }
  fail("a closing quote");
}

std::string_view ValueTextReader::readWord() {
  std::size_t start = at_;
  while (at_ < text_.size() && (std::isalnum(static_cast<unsigned char>(text_[at_])) || text_[at_] == '_' ||
                                text_[at_] == '-' || text_[at_] == '.'))
    ++at_;
  if (at_ == start) fail("a word");
  return text_.substr(start, at_ - start);
}

long long ValueTextReader::readNumber() {
  std::size_t start = at_;
  std::string_view w = readWord();
  long long v = 0;
  bool negative = !w.empty() && w[0] == '-';
  std::size_t i = negative ? 1 : 0;
  if (i == w.size()) {
    at_ = start;
    fail("a number");
  }
  for (; i < w.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(w[i]))) {
      at_ = start;
      fail("a number");
    }
    v = v * 10 + (w[i] - '0');
  }
  return negative ? -v : v;
}

}  // namespace Kiv
