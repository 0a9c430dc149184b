#include "host/mom/record/record_type.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <deque>
#include <memory>

#include "host/mom/record/member.h"
#include "p_libpub.pb-c.h"
#include "qx_mom.h"
#include "s_cluster.pb-c.h"
#include "s_policy_kelim.pb-c.h"
#include "s_target.pb-c.h"

namespace host::mom {

namespace {

constexpr std::uint32_t kIndexField = 5;

// The record types of the schema, in name order.
constexpr std::array kSchema = {
    &s_cluster__reg_pkt_info__descriptor,  &s_policy_kelim__flow__descriptor,        &s_policy_kelim__flow_counter__descriptor,
    &s_policy_kelim__flow_sta__descriptor, &s_policy_kelim__flow_to_ace__descriptor, &s_policy_kelim__flow_to_ace_sta__descriptor,
    &s_policy_kelim__meter__descriptor,    &s_policy_kelim__onc_ip__descriptor,      &s_policy_kelim__parse_flow__descriptor,
    &s_policy_kelim__pkt_sig__descriptor,  &s_policy_kelim__port_phyid__descriptor,  &s_target__capabilities__descriptor,
};

constexpr std::array<std::string_view, 1> kHashClass = {"s_policy_kelim.meter"};

// The encoding of a key field, by its type. `width` is in bytes, 0 for text.
struct KeyForm {
  ProtobufCType type;
  unsigned width;
  bool is_signed;
};
constexpr std::array kKeyForms = {
    KeyForm{PROTOBUF_C_TYPE_UINT32, 4, false},  KeyForm{PROTOBUF_C_TYPE_FIXED32, 4, false},
    KeyForm{PROTOBUF_C_TYPE_INT32, 4, true},    KeyForm{PROTOBUF_C_TYPE_SINT32, 4, true},
    KeyForm{PROTOBUF_C_TYPE_SFIXED32, 4, true}, KeyForm{PROTOBUF_C_TYPE_ENUM, 4, true},
    KeyForm{PROTOBUF_C_TYPE_BOOL, 4, true},     KeyForm{PROTOBUF_C_TYPE_UINT64, 8, false},
    KeyForm{PROTOBUF_C_TYPE_FIXED64, 8, false}, KeyForm{PROTOBUF_C_TYPE_INT64, 8, true},
    KeyForm{PROTOBUF_C_TYPE_SINT64, 8, true},   KeyForm{PROTOBUF_C_TYPE_SFIXED64, 8, true},
    KeyForm{PROTOBUF_C_TYPE_STRING, 0, false},
};

const KeyForm *form_of(ProtobufCType type) {
  const auto found = std::find_if(kKeyForms.begin(), kKeyForms.end(), [&](const KeyForm &form) { return form.type == type; });
  return found == kKeyForms.end() ? nullptr : found;
}

// Appends bytes to the two words while there is room, then to the tail.
class KeyWriter {
 public:
  void put(std::uint8_t byte) {
    if (size_ < 8) {
      key_.head.high |= std::uint64_t{byte} << (56 - 8 * size_);
    } else if (size_ < kKeyHeadSize) {
      key_.head.low |= std::uint64_t{byte} << (56 - 8 * (size_ - 8));
    } else {
      key_.tail.push_back(static_cast<char>(byte));
    }
    ++size_;
  }
  void put_integer(std::uint64_t value, unsigned width) {
    // Wholly within a word.
    if (size_ / 8 == (size_ + width - 1) / 8 && size_ < kKeyHeadSize) {
      (size_ < 8 ? key_.head.high : key_.head.low) |= value << (64 - 8 * (size_ % 8 + width));
      size_ += width;
      return;
    }
    for (unsigned shift = width * 8; shift > 0; shift -= 8) put(static_cast<std::uint8_t>(value >> (shift - 8)));
  }
  void put_text(std::string_view text) {
    for (char c : text) put(static_cast<std::uint8_t>(c));
    put(0);
  }
  std::optional<Key> take() {
    if (key_.tail.size() > kKeyTailMax) return std::nullopt;
    return std::move(key_);
  }

 private:
  Key key_;
  std::size_t size_ = 0;
};

class KeyReader {
 public:
  explicit KeyReader(const Key &key) : key_(key) {}
  std::uint8_t get() {
    const std::size_t at = at_++;
    if (at < 8) return static_cast<std::uint8_t>(key_.head.high >> (56 - 8 * at));
    if (at < kKeyHeadSize) return static_cast<std::uint8_t>(key_.head.low >> (56 - 8 * (at - 8)));
    return at - kKeyHeadSize < key_.tail.size() ? static_cast<std::uint8_t>(key_.tail[at - kKeyHeadSize]) : 0;
  }
  std::uint64_t get_integer(unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) value = value << 8 | get();
    return value;
  }
  std::string get_text() {
    std::string text;
    while (const std::uint8_t byte = get()) text.push_back(static_cast<char>(byte));
    return text;
  }

 private:
  const Key &key_;
  std::size_t at_ = 0;
};

constexpr std::string_view kHex = "0123456789ABCDEF";

void append_escaped(std::string &out, std::string_view text) {
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = (byte < 0x80 && std::isalnum(byte)) || std::string_view("._-/").find(c) != std::string_view::npos;
    if (plain) {
      out.push_back(c);
    } else {
      out.append({'%', kHex[byte >> 4], kHex[byte & 15]});
    }
  }
}

std::optional<std::string> unescaped(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\0') return std::nullopt;
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    unsigned byte = 0;
    const auto [end, error] = std::from_chars(text.data() + i + 1, text.data() + std::min(i + 3, text.size()), byte, 16);
    if (error != std::errc{} || end != text.data() + i + 3 || byte == 0) return std::nullopt;
    out.push_back(static_cast<char>(byte));
    i += 2;
  }
  return out;
}

struct Registry {
  std::vector<std::unique_ptr<RecordType>> types;
  const RecordType *last = nullptr;

  const RecordType *find(const ProtobufCMessageDescriptor *descriptor) {
    if (last && &last->descriptor() == descriptor) return last;
    for (const auto &type : types) {
      if (&type->descriptor() == descriptor) return last = type.get();
    }
    return nullptr;
  }
};

Registry &registry() {
  static Registry instance;
  return instance;
}

bool names_can_be_cut(const ProtobufCMessageDescriptor &descriptor) {
  const std::size_t package = qx_mom_package_name_len(&descriptor);
  const std::size_t name = qx_mom_short_name_len(&descriptor);
  const std::string_view full = descriptor.name ? descriptor.name : "";
  return package > 0 && name > 0 && full.size() == package + 1 + name && full[package] == '.';
}

}  // namespace

RecordType::RecordType(const ProtobufCMessageDescriptor &descriptor, std::size_t id)
    : descriptor_(&descriptor), name_(descriptor.name), package_len_(qx_mom_package_name_len(&descriptor)), id_(id) {
  hash_class_ = std::find(kHashClass.begin(), kHashClass.end(), name_) != kHashClass.end();
  packer_ = Packer::shared(descriptor);
}

// ---- a field of a key

std::uint64_t RecordType::KeyField::number_in(const ProtobufCMessage &key) const {
  return width == 4 ? member<std::uint32_t>(key, offset) : member<std::uint64_t>(key, offset);
}

std::string_view RecordType::KeyField::text_in(const ProtobufCMessage &key) const {
  const char *text = member<const char *>(key, offset);
  return text ? std::string_view(text) : std::string_view();
}

std::optional<std::uint64_t> RecordType::KeyField::parse(std::string_view number) const {
  const char *end = number.data() + number.size();
  if (is_signed) {
    std::int64_t value = 0;
    const auto [stop, error] = std::from_chars(number.data(), end, value);
    const bool fits = width == 8 || value == static_cast<std::int32_t>(value);
    if (error != std::errc{} || stop != end || !fits) return std::nullopt;
    return width == 8 ? static_cast<std::uint64_t>(value) : static_cast<std::uint32_t>(value);
  }
  std::uint64_t value = 0;
  const auto [stop, error] = std::from_chars(number.data(), end, value);
  const bool fits = width == 8 || value <= UINT32_MAX;
  if (error != std::errc{} || stop != end || !fits) return std::nullopt;
  return value;
}

std::string RecordType::KeyField::text_of(std::uint64_t number) const {
  if (!is_signed) return std::to_string(number);
  return width == 8 ? std::to_string(static_cast<std::int64_t>(number)) : std::to_string(static_cast<std::int32_t>(number));
}

// ---- the type

bool RecordType::read_key_fields() {
  const ProtobufCFieldDescriptor *index = protobuf_c_message_descriptor_get_field(descriptor_, kIndexField);
  if (!index || index->type != PROTOBUF_C_TYPE_MESSAGE || std::string_view(index->name) != "index")
    return true;  // a type without key
  if (index->label == PROTOBUF_C_LABEL_REPEATED) return false;
  index_ = index;
  key_ = static_cast<const ProtobufCMessageDescriptor *>(index->descriptor);
  std::size_t width = 0;
  for (const auto &field : std::span(key_->fields, key_->n_fields)) {
    const KeyForm *form = form_of(field.type);
    if (!form || field.label == PROTOBUF_C_LABEL_REPEATED) return false;
    if (form->width == 0) long_keys_ = true;
    width += form->width;
    key_fields_.push_back({field.offset, static_cast<std::uint8_t>(form->width), form->is_signed});
  }
  if (width > kKeyHeadSize) long_keys_ = true;
  return key_->n_fields > 0;
}

const RecordType *RecordType::of(const ProtobufCMessageDescriptor *descriptor) {
  if (!descriptor) return nullptr;
  Registry &known = registry();
  if (const RecordType *found = known.find(descriptor)) return found;
  if (descriptor->magic != PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC || !names_can_be_cut(*descriptor)) return nullptr;
  std::unique_ptr<RecordType> type(new RecordType(*descriptor, known.types.size()));
  if (!type->read_key_fields()) return nullptr;
  known.types.push_back(std::move(type));
  return known.types.back().get();
}

const RecordType *RecordType::named(std::string_view name) {
  for (const ProtobufCMessageDescriptor *descriptor : kSchema) {
    if (name == descriptor->name) return of(descriptor);
  }
  for (const auto &type : registry().types) {
    if (type->name() == name) return type.get();
  }
  return nullptr;
}

std::vector<const RecordType *> RecordType::all() {
  std::vector<const RecordType *> types;
  types.reserve(std::size(kSchema));
  for (const ProtobufCMessageDescriptor *descriptor : kSchema) types.push_back(of(descriptor));
  return types;
}

bool RecordType::key_matches(const ProtobufCMessageDescriptor *key) const {
  return key == key_;
}

const ProtobufCMessage *RecordType::index_of(const ProtobufCMessage &record) const {
  if (!index_) return nullptr;
  const auto *index = member<const ProtobufCMessage *>(record, index_->offset);
  return index && index->descriptor == key_ ? index : nullptr;
}

std::optional<Key> RecordType::key_of(const ProtobufCMessage &record) const {
  const ProtobufCMessage *index = index_of(record);
  if (!index) return std::nullopt;
  KeyWriter writer;
  for (const KeyField &field : key_fields_) {
    if (field.width == 0) {
      writer.put_text(field.text_in(*index));
    } else {
      writer.put_integer(field.number_in(*index) ^ field.sign_bit(), field.width);
    }
  }
  return writer.take();
}

bool RecordType::belongs(const ProtobufCMessage &record, const Key *expected) const {
  if (!index_) return true;
  return expected ? key_of(record) == *expected : index_of(record) != nullptr;
}

bool RecordType::is_template(const ProtobufCMessage &record) const {
  const ProtobufCMessage *index = index_of(record);
  if (!index) return true;
  return std::ranges::all_of(key_fields_, [index](const KeyField &field) {
    return field.width == 0 ? field.text_in(*index).empty() : field.number_in(*index) == 0;
  });
}

std::string RecordType::text(const Key &key) const {
  return std::string(name_).append(key_ ? ":" : "").append(member_text(key));
}

std::string RecordType::member_text(const Key &key) const {
  std::string out;
  if (!key_) return out;
  KeyReader reader(key);
  for (const KeyField &field : key_fields_) {
    if (&field != key_fields_.data()) out.push_back(':');
    if (field.width == 0) {
      append_escaped(out, reader.get_text());
    } else {
      out += field.text_of(reader.get_integer(field.width) ^ field.sign_bit());
    }
  }
  return out;
}

std::optional<Key> RecordType::parse(std::string_view text) const {
  if (!text.starts_with(name_) || !text.substr(name_.size()).starts_with(':')) return std::nullopt;
  return parse_member(text.substr(name_.size() + 1));
}

std::optional<Key> RecordType::parse_member(std::string_view text) const {
  if (!key_) return std::nullopt;
  KeyWriter writer;
  for (const KeyField &field : key_fields_) {
    if (&field != key_fields_.data()) {
      if (!text.starts_with(':')) return std::nullopt;
      text.remove_prefix(1);
    }
    const std::string_view part = text.substr(0, text.find(':'));
    text.remove_prefix(part.size());
    if (field.width == 0) {
      const auto raw = unescaped(part);
      if (!raw) return std::nullopt;
      writer.put_text(*raw);
    } else {
      const auto value = field.parse(part);
      if (!value) return std::nullopt;
      writer.put_integer(*value ^ field.sign_bit(), field.width);
    }
  }
  if (!text.empty()) return std::nullopt;
  return writer.take();
}

std::vector<std::uint8_t> RecordType::key_only(const Key &key) const {
  if (!key_) return {};
  auto free_message = [](ProtobufCMessage *message) { std::free(message); };
  std::unique_ptr<ProtobufCMessage, decltype(free_message)> index(
      static_cast<ProtobufCMessage *>(std::calloc(1, key_->sizeof_message)), free_message);
  std::unique_ptr<ProtobufCMessage, decltype(free_message)> record(
      static_cast<ProtobufCMessage *>(std::calloc(1, descriptor_->sizeof_message)), free_message);
  if (!index || !record) return {};
  protobuf_c_message_init(key_, index.get());
  protobuf_c_message_init(descriptor_, record.get());
  std::deque<std::string> texts;  // must outlive the packing below
  KeyReader reader(key);
  for (const KeyField &field : key_fields_) {
    if (field.width == 0) {
      member<char *>(*index, field.offset) = texts.emplace_back(reader.get_text()).data();
    } else if (const std::uint64_t value = reader.get_integer(field.width) ^ field.sign_bit(); field.width == 4) {
      member<std::uint32_t>(*index, field.offset) = static_cast<std::uint32_t>(value);
    } else {
      member<std::uint64_t>(*index, field.offset) = value;
    }
  }
  member<ProtobufCMessage *>(*record, index_->offset) = index.get();
  std::vector<std::uint8_t> packed(protobuf_c_message_get_packed_size(record.get()));
  protobuf_c_message_pack(record.get(), packed.data());
  return packed;
}

std::optional<PackedBytes> RecordType::pack(const ProtobufCMessage &record) const {
  static BackwardBuffer buffer;
  buffer.clear();
  if (!packer_->pack(record, buffer)) return std::nullopt;
  return buffer.written();
}

}  // namespace host::mom
