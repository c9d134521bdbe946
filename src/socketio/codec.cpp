#include "socketio/codec.hpp"

#include <boost/json/object.hpp>
#include <boost/json/parser.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace sio {

namespace json = boost::json;

namespace {

template <class T>
Result<T> ok(T value) {
  return Result<T>{std::move(value), {}};
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Hostile nesting must not exhaust the stack of the parser or of the walks over the parsed value.
constexpr std::size_t kMaxJsonDepth = 64;

// An open packet is a hundred bytes or so.
constexpr std::size_t kHandshakeMemory = 64 * 1024;

// What one packet's JSON takes to parse (the value, and the parser's stack beyond its buffer on the
// C++ stack), carved from blocks that all go at once with the last value using them: one allocation
// for a typical packet instead of one per node, and nothing to free node by node. Parsing is metered
// against a budget. Once sealed, what the application adds to the value or its copies (which share
// this resource) comes from the heap, with no state that changes, so any thread may do it.
class PacketArena final : public json::memory_resource {
 public:
  // The shared holder keeps the resource out of reach: it tells where it is through `self`. The
  // first block beyond the inline one is sized for `text` bytes of JSON: a value that outlives its
  // handler pins the whole arena, so it stays near the packet's own size.
  PacketArena(std::size_t& budget, std::size_t text, PacketArena*& self) : left_(&budget), grow_(2 * text + 256) {
    self = this;
  }
  ~PacketArena() override {
    while (extra_) ::operator delete(std::exchange(extra_, extra_->next));
  }
  PacketArena(const PacketArena&) = delete;
  PacketArena& operator=(const PacketArena&) = delete;
  // Called before the value leaves the parsing thread; the budget is not touched afterwards.
  void seal() {
    sealed_ = true;
    left_ = nullptr;
  }

 private:
  struct Block {
    Block* next;
    std::size_t size;  // of the bytes that follow
  };
  // Room for a small packet (an acknowledgement, a short event) in the arena's own allocation.
  static constexpr std::size_t kInline = 512 - 64;

  static std::uintptr_t address(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }
  static std::uintptr_t alignUp(std::uintptr_t a, std::size_t align) { return (a + align - 1) & ~(align - 1); }

  void* do_allocate(std::size_t n, std::size_t align) override {
    if (sealed_) return ::operator new(n);
    if (n > *left_) throw std::bad_alloc();
    *left_ -= n;
    auto p = alignUp(next_, align);
    if (p + n > end_) {
      const std::size_t size = std::max(n + align, std::exchange(grow_, grow_ * 2));
      auto* b = static_cast<Block*>(::operator new(sizeof(Block) + size));
      *b = Block{extra_, size};
      extra_ = b;
      next_ = address(b + 1);
      end_ = next_ + size;
      p = alignUp(next_, align);
    }
    next_ = p + n;
    return reinterpret_cast<void*>(p);
  }
  void do_deallocate(void* p, std::size_t, std::size_t) override {
    if (sealed_ && !owns(p)) ::operator delete(p);
  }
  bool owns(const void* p) const {
    const auto a = address(p);
    if (a >= address(inline_) && a < address(inline_ + kInline)) return true;
    for (const Block* b = extra_; b; b = b->next) {
      if (a >= address(b + 1) && a < address(b + 1) + b->size) return true;
    }
    return false;
  }
  bool do_is_equal(const json::memory_resource& other) const noexcept override { return this == &other; }

  std::size_t* left_;  // the packet's budget, shared with the parser's stack
  bool sealed_ = false;
  Block* extra_ = nullptr;
  std::size_t grow_;
  alignas(std::max_align_t) unsigned char inline_[kInline];
  std::uintptr_t next_ = address(inline_);
  std::uintptr_t end_ = next_ + kInline;
};

// A parser whose stack (on the heap, metered against the same budget as the packet's arena) is kept
// from packet to packet instead of being set up and grown again for each.
class JsonReader {
 public:
  JsonReader() : stack_(budget_) { recover(); }

  Result<json::value> parse(std::string_view text, std::size_t budget) {
    using R = Result<json::value>;
    budget_ = budget > stack_.held() ? budget - stack_.held() : 0;
    PacketArena* arena = nullptr;
    try {
      parser_->reset(json::make_shared_resource<PacketArena>(budget_, text.size(), arena));
      boost::system::error_code ec;
      parser_->write(text.data(), text.size(), ec);
      if (ec) {
        recover();
        return R::fail("payload is not valid JSON");
      }
      auto value = parser_->release();
      arena->seal();
      if (stack_.held() > kStackKept) recover();
      return ok(std::move(value));
    } catch (const std::bad_alloc&) {
      recover();
      return R::fail("payload needs more than " + std::to_string(budget) + " bytes to decode");
    }
  }

 private:
  // Counts what the parser's stack holds against the current packet's budget.
  class MeteredHeap final : public json::memory_resource {
   public:
    explicit MeteredHeap(std::size_t& budget) : budget_(budget) {}
    std::size_t held() const { return held_; }

   private:
    void* do_allocate(std::size_t n, std::size_t) override {
      if (n > budget_) throw std::bad_alloc();
      void* p = ::operator new(n);
      budget_ -= n;
      held_ += n;
      return p;
    }
    void do_deallocate(void* p, std::size_t n, std::size_t) override {
      ::operator delete(p);
      held_ -= n;
      budget_ += n;
    }
    bool do_is_equal(const json::memory_resource& other) const noexcept override { return this == &other; }
    std::size_t& budget_;
    std::size_t held_ = 0;
  };

  // A hostile packet may have grown the stack: a connection keeps no more than a typical one needs.
  static constexpr std::size_t kStackKept = 16 * 1024;

  static json::parse_options options() {
    json::parse_options o;
    o.max_depth = kMaxJsonDepth;
    return o;
  }
  // A fresh parser: drops a half-built value (and with it the packet's arena) and an oversized stack.
  void recover() {
    parser_.reset();
    budget_ = std::numeric_limits<std::size_t>::max();  // set again for each packet
    parser_.emplace(json::storage_ptr(&stack_), options());
  }

  std::size_t budget_ = 0;
  MeteredHeap stack_;
  std::optional<json::parser> parser_;
};

Result<json::value> parseJson(std::string_view text, std::size_t budget) {
  JsonReader reader;
  return reader.parse(text, budget);
}

// Writes into a string through a raw cursor: each piece first makes room for its worst case (one
// compare, inlined), then stores without checks; the string is cut to length once at the end.
class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {
    // Room for a typical packet at once; resize zero-fills, so no more than that.
    out_.resize(std::max<std::size_t>(out_.size() + 224, out_.capacity()));
    p_ = out_.data();
    end_ = p_ + out_.size();
  }
  ~Writer() { out_.resize(static_cast<std::size_t>(p_ - out_.data())); }  // before the string is read
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  // At least n bytes free at the returned cursor; advance() with where the writing ended.
  char* room(std::size_t n) {
    if (static_cast<std::size_t>(end_ - p_) < n) grow(n);
    return p_;
  }
  void advance(char* to) { p_ = to; }

  void put(char c) { *room(1) = c, ++p_; }
  void put(std::string_view s) {
    std::memcpy(room(s.size()), s.data(), s.size());
    p_ += s.size();
  }
  template <class N>
  void number(N n) {
    p_ = std::to_chars(room(32), end_, n).ptr;
  }
  // Shortest round-trip form, kept a fraction (1.0, not 1) so that a peer reads it back as one.
  void real(double d) {
    char* start = room(32 + 2);
    p_ = std::to_chars(start, end_, d).ptr;
    if (std::string_view(start, static_cast<std::size_t>(p_ - start)).find_first_of(".e") == std::string_view::npos) {
      *p_++ = '.';
      *p_++ = '0';
    }
  }

 private:
  [[gnu::noinline]] void grow(std::size_t n) {
    const auto used = static_cast<std::size_t>(p_ - out_.data());
    out_.resize(std::max(2 * out_.size(), used + n + 224));
    p_ = out_.data() + used;
    end_ = out_.data() + out_.size();
  }
  std::string& out_;
  char* p_ = nullptr;
  char* end_ = nullptr;
};

// Whether any of the eight bytes in `x` is a control character, '"' or '\\' (bit tricks: a byte
// below n makes (b - n) borrow into its top bit).
bool needsEscape(std::uint64_t x) {
  constexpr std::uint64_t kOnes = 0x0101010101010101u, kHigh = 0x8080808080808080u;
  const auto below = [&](std::uint64_t v, unsigned n) { return (v - kOnes * n) & ~v & kHigh; };
  return (below(x, 0x20) | below(x ^ (kOnes * '"'), 1) | below(x ^ (kOnes * '\\'), 1)) != 0;
}

// What each byte becomes inside a JSON string, as the reference serializers escape it: 0 for
// itself, a letter for a two-character escape, 'u' for \u00XX.
constexpr auto kEscapes = [] {
  std::array<char, 256> t{};
  for (int c = 0; c < 0x20; ++c) t[static_cast<std::size_t>(c)] = 'u';
  t['"'] = '"';
  t['\\'] = '\\';
  t['\b'] = 'b';
  t['\f'] = 'f';
  t['\n'] = 'n';
  t['\r'] = 'r';
  t['\t'] = 't';
  return t;
}();

// Escapes `s` into `p`, which has room for 6 bytes per input byte; returns the end.
char* escapeInto(char* p, const char* s, std::size_t n) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::size_t i = 0;
  // Strings rarely need escapes: copy them eight bytes at a time while none is needed.
  for (std::uint64_t x; i + 8 <= n && (std::memcpy(&x, s + i, 8), !needsEscape(x)); i += 8, p += 8) {
    std::memcpy(p, &x, 8);
  }
  for (; i < n; ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    const char e = kEscapes[c];
    if (e == 0) {
      *p++ = static_cast<char>(c);
    } else if (e != 'u') {
      *p++ = '\\';
      *p++ = e;
    } else {
      const char escaped[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
      std::memcpy(p, escaped, 6);
      p += 6;
    }
  }
  return p;
}

// A JSON string. Room is made a slice at a time, so a long string never asks for six times its size.
void writeString(Writer& w, std::string_view s) {
  constexpr std::size_t kSlice = 4096;
  char* p = w.room(std::min(s.size(), kSlice) * 6 + 2);
  *p++ = '"';
  while (s.size() > kSlice) {
    w.advance(escapeInto(p, s.data(), kSlice));
    s.remove_prefix(kSlice);
    p = w.room(std::min(s.size(), kSlice) * 6 + 1);
  }
  p = escapeInto(p, s.data(), s.size());
  *p++ = '"';
  w.advance(p);
}

// Serializes in one walk. JSON has no Infinity or NaN: they go out as null, as JSON.stringify
// writes them (the server would close the connection on anything else).
void writeJson(Writer& w, const json::value& v) {
  switch (v.kind()) {
    case json::kind::null:
      return w.put("null");
    case json::kind::bool_:
      return v.get_bool() ? w.put("true") : w.put("false");
    case json::kind::int64:
      return w.number(v.get_int64());
    case json::kind::uint64:
      return w.number(v.get_uint64());
    case json::kind::double_:
      if (!std::isfinite(v.get_double())) return w.put("null");
      return w.real(v.get_double());
    case json::kind::string: {
      const auto& s = v.get_string();
      return writeString(w, std::string_view(s.data(), s.size()));
    }
    case json::kind::array: {
      char sep = '[';
      for (const auto& e : v.get_array()) {
        w.put(std::exchange(sep, ','));
        writeJson(w, e);
      }
      return sep == '[' ? w.put("[]") : w.put(']');
    }
    case json::kind::object: {
      char sep = '{';
      for (const auto& e : v.get_object()) {
        w.put(std::exchange(sep, ','));
        writeString(w, std::string_view(e.key().data(), e.key().size()));
        w.put(':');
        writeJson(w, e.value());
      }
      return sep == '{' ? w.put("{}") : w.put('}');
    }
  }
}

// The arguments as a JSON array, after the event name when there is one.
void writeArgs(Writer& w, std::optional<std::string_view> event, const json::array& args) {
  char sep = '[';
  if (event) {
    w.put(std::exchange(sep, ','));
    writeString(w, *event);
  }
  for (const auto& e : args) {
    w.put(std::exchange(sep, ','));
    writeJson(w, e);
  }
  sep == '[' ? w.put("[]") : w.put(']');
}

// A JSON integer in [1, max], or nothing.
std::optional<std::uint64_t> positiveInteger(const json::value& v, std::uint64_t max) {
  std::uint64_t n = 0;
  if (const auto* i = v.if_int64()) {
    n = *i > 0 ? static_cast<std::uint64_t>(*i) : 0;
  } else if (const auto* u = v.if_uint64()) {
    n = *u;
  }
  if (n == 0 || n > max) return std::nullopt;
  return n;
}

// Every object marked as a placeholder must point at one of the packet's attachments.
bool placeholdersValid(const json::value& v, std::size_t count) {
  if (const auto* arr = v.if_array()) {
    return std::all_of(arr->begin(), arr->end(),
                       [&](const json::value& e) { return placeholdersValid(e, count); });
  }
  const auto* obj = v.if_object();
  if (!obj) return true;
  const auto* flag = obj->if_contains("_placeholder");
  if (flag && flag->is_bool() && flag->get_bool()) return isPlaceholder(v, count);
  return std::all_of(obj->begin(), obj->end(),
                     [&](const json::key_value_pair& e) { return placeholdersValid(e.value(), count); });
}

const char* payloadError(PacketType type, const json::value* payload) {
  switch (type) {
    case PacketType::Connect:
      return !payload || payload->is_object() ? nullptr : "CONNECT payload is not an object";
    case PacketType::Disconnect:
      return payload ? "DISCONNECT carries a payload" : nullptr;
    case PacketType::Event:
    case PacketType::BinaryEvent: {
      const auto* args = payload ? payload->if_array() : nullptr;
      if (!args || args->empty()) return "EVENT payload is not a non-empty array";
      const auto& name = args->front();
      // One that overflowed could not go back out: JSON carries it as null.
      if (const auto* d = name.if_double(); d && !std::isfinite(*d)) return "event name is not a finite number";
      if (name.is_number()) return nullptr;
      if (!name.is_string()) return "event name is neither a string nor a number";
      const auto& s = name.get_string();
      return isReservedEventName(std::string_view(s.data(), s.size())) ? "reserved event name" : nullptr;
    }
    case PacketType::Ack:
    case PacketType::BinaryAck:
      return payload && payload->is_array() ? nullptr : "ACK payload is not an array";
    case PacketType::ConnectError: {
      if (payload && payload->is_string()) return nullptr;
      const auto* obj = payload ? payload->if_object() : nullptr;
      const auto* message = obj ? obj->if_contains("message") : nullptr;
      return message && message->is_string() ? nullptr : "CONNECT_ERROR payload has no message";
    }
  }
  return "unknown packet type";
}

// The text frame: '4', the packet type (with the attachment count for binary packets), the ack id,
// the arguments.
Frames encodeArgs(PacketType plain, PacketType binary, std::optional<std::uint64_t> id,
                  std::optional<std::string_view> event, const Payload& payload) {
  Frames out{{}, payload.buffers};
  {
    Writer w(out.text);
    w.put('4');
    if (payload.buffers.empty()) {
      w.put(static_cast<char>('0' + static_cast<int>(plain)));
    } else {
      w.put(static_cast<char>('0' + static_cast<int>(binary)));
      w.number(payload.buffers.size());
      w.put('-');
    }
    if (id) w.number(*id);
    writeArgs(w, event, payload.args);
  }
  return out;
}

bool isUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || isDigit(static_cast<char>(c)) || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

// Percent-encodes all but the RFC 3986 unreserved characters, so '+', '&', '=' and space survive
// any server-side query parser.
void appendEncoded(std::string& out, std::string_view s) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (const char ch : s) {
    const auto c = static_cast<unsigned char>(ch);
    if (isUnreserved(c)) {
      out += ch;
    } else {
      const char escaped[3] = {'%', kHex[c >> 4], kHex[c & 15]};
      out.append(escaped, 3);
    }
  }
}

bool isReservedQueryKey(std::string_view key) {
  return key == "EIO" || key == "transport" || key == "sid" || key == "t" || key == "j" || key == "b64";
}

// A path we can put verbatim into the request line.
bool isPlainPath(std::string_view path) {
  return !path.empty() && path.front() == '/' && std::all_of(path.begin(), path.end(), [](char c) {
    return c > ' ' && c < 127 && c != '?' && c != '#';
  });
}

}  // namespace

json::value makePlaceholder(std::size_t num) {
  return json::object{{"_placeholder", true}, {"num", static_cast<std::uint64_t>(num)}};
}

bool isPlaceholder(const json::value& v, std::size_t buffer_count) {
  const auto* obj = v.if_object();
  if (!obj) return false;
  const auto* flag = obj->if_contains("_placeholder");
  const auto* num = obj->if_contains("num");
  if (!flag || !flag->is_bool() || !flag->get_bool() || !num) return false;
  if (const auto* i = num->if_int64()) return *i >= 0 && static_cast<std::uint64_t>(*i) < buffer_count;
  if (const auto* u = num->if_uint64()) return *u < buffer_count;
  return false;
}

namespace engine {

Result<TextPacket> decodeText(std::string_view frame) {
  if (frame.empty()) return Result<TextPacket>::fail("empty Engine.IO packet");
  if (frame.front() < '0' || frame.front() > '6') {
    return Result<TextPacket>::fail("unknown Engine.IO packet type");
  }
  return ok(TextPacket{static_cast<Type>(frame.front()), frame.substr(1)});
}

Result<Handshake> decodeHandshake(std::string_view text) {
  using R = Result<Handshake>;
  auto parsed = parseJson(text, kHandshakeMemory);
  if (!parsed) return R::fail("open packet: " + parsed.error);
  const auto* obj = parsed.value->if_object();
  if (!obj) return R::fail("open packet is not a JSON object");
  const auto* sid = obj->if_contains("sid");
  if (!sid || !sid->is_string() || sid->get_string().empty()) return R::fail("open packet has no sid");
  // Timer periods above 2^31-1 ms are broken in the reference clients too; the bound also keeps
  // pingInterval + pingTimeout far from overflowing.
  constexpr std::uint64_t kMaxPeriod = std::numeric_limits<std::int32_t>::max();
  const auto* interval = obj->if_contains("pingInterval");
  const auto* timeout = obj->if_contains("pingTimeout");
  const auto interval_ms = interval ? positiveInteger(*interval, kMaxPeriod) : std::nullopt;
  const auto timeout_ms = timeout ? positiveInteger(*timeout, kMaxPeriod) : std::nullopt;
  if (!interval_ms || !timeout_ms) return R::fail("open packet has no valid pingInterval/pingTimeout");
  Handshake hs{std::string(sid->get_string()), std::chrono::milliseconds(*interval_ms),
               std::chrono::milliseconds(*timeout_ms), std::nullopt};
  if (const auto* max_payload = obj->if_contains("maxPayload")) {
    const auto n = positiveInteger(*max_payload, std::numeric_limits<std::size_t>::max());
    if (!n) return R::fail("open packet has an invalid maxPayload");
    hs.max_payload = static_cast<std::size_t>(*n);
  }
  return ok(std::move(hs));
}

}  // namespace engine

Frames encodeConnect() {
  return Frames{"40", {}};
}

Frames encodeDisconnect() {
  return Frames{"41", {}};
}

Frames encodeEvent(std::string_view event, const Payload& payload, std::optional<std::uint64_t> ack_id) {
  return encodeArgs(PacketType::Event, PacketType::BinaryEvent, ack_id, event, payload);
}

Frames encodeAck(std::uint64_t ack_id, const Payload& payload) {
  return encodeArgs(PacketType::Ack, PacketType::BinaryAck, ack_id, std::nullopt, payload);
}

bool isReservedEventName(std::string_view name) {
  return name == "connect" || name == "connect_error" || name == "disconnect" || name == "disconnecting" ||
         name == "newListener" || name == "removeListener";
}

namespace {
// Built in place: each move of a packet touches its JSON's shared memory resource.
Result<Decoder::Output> complete(Packet&& packet) {
  Result<Decoder::Output> r;
  r.value.emplace(std::in_place_type<Packet>, std::move(packet));
  return r;
}
}  // namespace

Result<Decoder::Output> Decoder::onText(std::string_view data) {
  using R = Result<Output>;
  if (pending_) {
    reset();
    return R::fail("text packet before all attachments arrived");
  }
  if (data.empty() || data.front() < '0' || data.front() > '6') {
    return R::fail("unknown Socket.IO packet type");
  }
  Packet packet;
  packet.type = static_cast<PacketType>(data.front() - '0');
  std::size_t i = 1;

  std::size_t count = 0;
  const bool binary = packet.type == PacketType::BinaryEvent || packet.type == PacketType::BinaryAck;
  if (binary) {
    const std::size_t start = i;
    for (; i < data.size() && isDigit(data[i]); ++i) {
      count = count * 10 + static_cast<std::size_t>(data[i] - '0');
      if (count > kMaxAttachments) return R::fail("too many attachments");
    }
    if (i == start || i == data.size() || data[i] != '-') return R::fail("bad attachment count");
    ++i;
  }

  if (i < data.size() && data[i] == '/') {
    const std::size_t comma = data.find(',', i);
    const std::size_t end = comma == std::string_view::npos ? data.size() : comma;
    packet.nsp.assign(data.substr(i, end - i));
    i = comma == std::string_view::npos ? end : comma + 1;
  }

  if (i < data.size() && isDigit(data[i])) {
    std::uint64_t id = 0;
    for (; i < data.size() && isDigit(data[i]); ++i) {
      const auto digit = static_cast<std::uint64_t>(data[i] - '0');
      if (id > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) return R::fail("ack id overflows");
      id = id * 10 + digit;
    }
    packet.id = id;
  }
  if ((packet.type == PacketType::Ack || packet.type == PacketType::BinaryAck) && !packet.id) {
    return R::fail("ACK without an id");
  }

  if (i < data.size()) {
    // Per thread, not per connection: an idle connection holds no parser. Parsing calls out to
    // nothing, so no other decoder on this thread can re-enter it.
    static thread_local JsonReader reader;
    auto payload = reader.parse(data.substr(i), limits_.json_memory);
    if (!payload) return R::fail(payload.error);
    // Constructed in place: assigning a value from another memory resource would copy it.
    std::destroy_at(&packet.data);
    std::construct_at(&packet.data, std::move(*payload.value));
  }
  if (const char* why = payloadError(packet.type, packet.data.is_null() ? nullptr : &packet.data)) {
    return R::fail(why);
  }

  if (binary) {
    if (!placeholdersValid(packet.data, count)) return R::fail("illegal attachment placeholder");
    if (count > 0) {
      packet.buffers.reserve(count);
      pending_ = std::move(packet);
      expected_ = count;
      return ok(Output{});
    }
  }
  return complete(std::move(packet));
}

Result<Decoder::Output> Decoder::onBinary(BufferPtr frame) {
  using R = Result<Output>;
  if (!pending_) return R::fail("binary frame with no packet awaiting attachments");
  if (!frame) {
    reset();
    return R::fail("missing binary frame");
  }
  pending_bytes_ += frame->size();
  if (pending_bytes_ > limits_.attachment_bytes) {
    reset();
    return R::fail("attachments over " + std::to_string(limits_.attachment_bytes) + " bytes in all");
  }
  pending_->buffers.push_back(std::move(frame));
  if (pending_->buffers.size() < expected_) return ok(Output{});
  auto done = complete(std::move(*pending_));
  reset();
  return done;
}

Result<Endpoint> buildEndpoint(std::string_view base_url, std::string_view path,
                               const std::vector<std::pair<std::string, std::string>>& query) {
  using R = Result<Endpoint>;
  namespace urls = boost::urls;
  const auto parsed = urls::parse_uri(urls::string_view(base_url.data(), base_url.size()));
  if (!parsed) return R::fail("invalid server URL");
  const urls::url_view& url = *parsed;

  Endpoint ep;
  switch (url.scheme_id()) {
    case urls::scheme::http:
    case urls::scheme::ws:
      break;
    case urls::scheme::https:
    case urls::scheme::wss:
      ep.tls = true;
      break;
    default:
      return R::fail("unsupported URL scheme (use http, https, ws or wss)");
  }
  if (url.has_userinfo()) return R::fail("credentials in the server URL are not supported");
  if (url.encoded_path() != "" && url.encoded_path() != "/") {
    return R::fail("the server URL must not have a path; give a path prefix as the Socket.IO path instead");
  }
  if (!isPlainPath(path)) return R::fail("invalid Socket.IO path");

  switch (url.host_type()) {
    case urls::host_type::ipv4:
    case urls::host_type::ipv6:
      ep.host_is_ip = true;
      break;
    case urls::host_type::name:
      break;
    default:
      return R::fail("the server URL has no usable host");
  }
  // Escapes in a host name could smuggle CR/LF into the Host header; real host names need none.
  const auto host = url.encoded_host_address();
  if (host.empty() || host.find('%') != host.npos) return R::fail("the server URL has no valid host");
  ep.host = host;

  // Boost.URL wraps ports above 65535, so the digits are read here.
  const unsigned default_port = ep.tls ? 443 : 80;
  unsigned port = default_port;
  if (const auto digits = url.port(); !digits.empty()) {
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (ec != std::errc() || end != digits.data() + digits.size() || port == 0 || port > 65535) {
      return R::fail("invalid port in the server URL");
    }
  }
  ep.port = std::to_string(port);
  ep.host_header = url.host_type() == urls::host_type::ipv6 ? "[" + ep.host + "]" : ep.host;
  if (port != default_port) ep.host_header += ":" + ep.port;

  const auto overridden = [&](std::string_view key) {
    return std::any_of(query.begin(), query.end(), [&](const auto& kv) { return kv.first == key; });
  };

  ep.target.reserve(path.size() + 64);
  ep.target.append(path);
  // As the reference client does, a path always ends in one '/'.
  if (path.back() != '/') ep.target += '/';
  ep.target += '?';
  for (const auto param : url.params()) {
    if (isReservedQueryKey(param.key)) return R::fail("reserved query parameter: " + param.key);
    if ((param.key.empty() && !param.has_value) || overridden(param.key)) continue;
    appendEncoded(ep.target, param.key);
    if (param.has_value) {
      ep.target += '=';
      appendEncoded(ep.target, param.value);
    }
    ep.target += '&';
  }
  for (const auto& [key, value] : query) {
    if (isReservedQueryKey(key)) return R::fail("reserved query parameter: " + key);
    appendEncoded(ep.target, key);
    ep.target += '=';
    appendEncoded(ep.target, value);
    ep.target += '&';
  }
  ep.target += "EIO=4&transport=websocket";
  return ok(std::move(ep));
}

}  // namespace sio
