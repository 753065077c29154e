#include "image_manifest.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/types.h>
#include <unistd.h>

#include "text_field.h"

namespace
{

// No text of a program looks like this.
constexpr std::uint8_t MARK[IMAGE_MARK_BYTES] = {0x8f, 'B', 'I', 'O', 'S', 'm',  'a',  'n',
                                                 'i',  'f', 'e', 's', 't', 0x0d, 0x0a, 0x1a};
constexpr std::size_t PIECE_BYTES = 64 << 10;
static_assert(PIECE_BYTES % IMAGE_MANIFEST_BYTES == 0);

bool has_mark(const std::uint8_t *bytes, std::size_t count)
{
    return count >= sizeof MARK && std::memcmp(bytes, MARK, sizeof MARK) == 0;
}

template<std::size_t SIZE>
bool is_zero(const std::uint8_t (&bytes)[SIZE])
{
    return std::all_of(bytes, bytes + SIZE, [](std::uint8_t byte) { return byte == 0; });
}

bool is_printable(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char one) { return one > ' ' && one < 0x7f; });
}

// The text of a field; nothing when it is not a word that is padded with zeros.
template<std::size_t SIZE>
std::optional<std::string> word_of(const char (&field)[SIZE])
{
    const std::string text = field_text(field).text;
    const bool is_padded = std::all_of(field + text.size(), field + SIZE, [](char one) { return one == '\0'; });
    return is_padded && is_printable(text) ? std::optional(text) : std::nullopt;
}

template<std::size_t SIZE>
bool store_word(char (&field)[SIZE], const std::string &text)
{
    store_text(field, text.c_str());
    return text.size() <= SIZE && is_printable(text);
}

} // namespace

bool image_manifest::is_for_card_id(std::uint32_t card_id) const
{
    return card_ids.empty() || std::find(card_ids.begin(), card_ids.end(), card_id) != card_ids.end();
}

const char *image_manifest_load(const image_manifest_record &record, image_manifest &manifest_out)
{
    if (!has_mark(record.mark, sizeof record.mark))
        return "has no mark";
    if (record.form.load() != IMAGE_MANIFEST_FORM)
        return "has a form that is not known";
    const auto version = word_of(record.version);
    const auto family_name = word_of(record.family_name);
    if (!version || !family_name)
        return "has a text that is not printable";
    const std::uint32_t card_id_count = record.card_id_count.load();
    if (card_id_count > IMAGE_CARD_IDS_MAX)
        return "has too many card ids";
    const auto *const unused_ids = record.card_ids + card_id_count;
    if (!is_zero(record.unused) ||
        std::any_of(unused_ids, std::end(record.card_ids), [](be16 id) { return id.load() != 0; }))
        return "has contents where it has to be empty";
    const bool is_signed = !is_zero(record.key_id);
    if (!is_signed && !is_zero(record.signature))
        return "has a signature without a key";

    manifest_out.size_bytes = record.size_bytes.load();
    manifest_out.family = record.family.load();
    manifest_out.security_version = record.security_version.load();
    manifest_out.version = *version;
    manifest_out.family_name = *family_name;
    manifest_out.card_ids.clear();
    for (std::uint32_t index = 0; index < card_id_count; ++index)
        manifest_out.card_ids.push_back(record.card_ids[index].load());
    manifest_out.key_id.reset();
    if (is_signed)
        std::copy_n(record.key_id, sizeof record.key_id, manifest_out.key_id.emplace().begin());
    std::copy_n(record.digest, sizeof record.digest, manifest_out.digest.begin());
    std::copy_n(record.signature, sizeof record.signature, manifest_out.signature.begin());
    return nullptr;
}

bool image_manifest_store(const image_manifest &manifest, image_manifest_record &record_out)
{
    record_out = {};
    std::copy_n(MARK, sizeof MARK, record_out.mark);
    record_out.form.store(IMAGE_MANIFEST_FORM);
    record_out.size_bytes.store(manifest.size_bytes);
    record_out.family.store(manifest.family);
    record_out.security_version.store(manifest.security_version);
    if (!store_word(record_out.version, manifest.version) ||
        !store_word(record_out.family_name, manifest.family_name) || manifest.card_ids.size() > IMAGE_CARD_IDS_MAX)
        return false;
    record_out.card_id_count.store(static_cast<std::uint32_t>(manifest.card_ids.size()));
    for (std::size_t index = 0; index < manifest.card_ids.size(); ++index)
        record_out.card_ids[index].store(manifest.card_ids[index]);
    if (manifest.key_id)
        std::copy(manifest.key_id->begin(), manifest.key_id->end(), record_out.key_id);
    std::copy(manifest.digest.begin(), manifest.digest.end(), record_out.digest);
    std::copy(manifest.signature.begin(), manifest.signature.end(), record_out.signature);
    return true;
}

void image_reader::add(const void *bytes, std::size_t count)
{
    if (count == 0)
        return; // there may be no bytes to point at
    const auto *next = static_cast<const std::uint8_t *>(bytes);
    if (waiting_count_ != 0) {
        const std::size_t taken = std::min(count, waiting_.size() - waiting_count_);
        std::memcpy(waiting_.data() + waiting_count_, next, taken);
        waiting_count_ += taken;
        if (waiting_count_ < waiting_.size())
            return;
        take_stretches(waiting_.data(), waiting_.size());
        next += taken;
        count -= taken;
    }
    const std::size_t whole = count - count % IMAGE_MANIFEST_BYTES;
    take_stretches(next, whole);
    waiting_count_ = count - whole;
    if (waiting_count_ != 0)
        std::memcpy(waiting_.data(), next + whole, waiting_count_);
}

// count is a multiple of the stretch, but for the end of an image.
void image_reader::take_stretches(const std::uint8_t *bytes, std::size_t count)
{
    std::size_t plain = 0; // where the run begins that nothing is the matter with
    for (std::size_t at = 0; at < count; at += IMAGE_MANIFEST_BYTES) {
        const std::size_t length = std::min(IMAGE_MANIFEST_BYTES, count - at);
        const bool is_first = at == 0 && taken_bytes_ == 0;
        const bool is_manifest = has_mark(bytes + at, length);
        if (!is_first && !is_manifest)
            continue;
        take_plain(bytes + plain, at - plain);
        if (is_manifest && length == IMAGE_MANIFEST_BYTES)
            take_manifest(bytes + at);
        else
            take_first(bytes + at, length);
        if (is_manifest && length < IMAGE_MANIFEST_BYTES)
            record_problem_ = ++marks_ == 1 ? "is cut short by the image's end" : record_problem_;
        plain = at + length;
    }
    if (plain < count)
        take_plain(bytes + plain, count - plain);
}

void image_reader::take_plain(const std::uint8_t *bytes, std::size_t count)
{
    take(bytes, bytes, bytes, count);
}

// The first stretch of an image, or a stretch that has no room for what it might hold.
void image_reader::take_first(const std::uint8_t *bytes, std::size_t count)
{
    const bool is_ppc = taken_bytes_ == 0 && count >= PPC_DIGEST_OFFSET + stored_inner_.size() &&
                        std::equal(PPC_IMAGE_BEGINNING.begin(), PPC_IMAGE_BEGINNING.end(), bytes);
    if (!is_ppc) {
        take_plain(bytes, count);
        return;
    }
    std::array<std::uint8_t, IMAGE_MANIFEST_BYTES> covered;
    std::copy_n(bytes, count, covered.begin());
    const auto inner = covered.begin() + PPC_DIGEST_OFFSET;
    std::copy_n(inner, stored_inner_.size(), stored_inner_.begin());
    std::fill_n(inner, stored_inner_.size(), std::uint8_t{0});
    covered_ = whole_;
    take(bytes, covered.data(), covered.data(), count);
    inner_.emplace().add(covered.data(), count);
}

void image_reader::take_manifest(const std::uint8_t *bytes)
{
    image_manifest_record record;
    std::memcpy(&record, bytes, sizeof record);
    if (++marks_ == 1) {
        manifest_.offset = taken_bytes_;
        record_problem_ = image_manifest_load(record, manifest_);
    }
    image_manifest_record for_signature = record;
    std::fill(std::begin(for_signature.signature), std::end(for_signature.signature), std::uint8_t{0});
    image_manifest_record for_digest = for_signature;
    std::fill(std::begin(for_digest.digest), std::end(for_digest.digest), std::uint8_t{0});
    if (!covered_)
        covered_ = whole_;
    const auto bytes_of = [](const image_manifest_record &one) {
        return reinterpret_cast<const std::uint8_t *>(&one);
    };
    take(bytes, bytes_of(for_signature), bytes_of(for_digest), sizeof record);
}

void image_reader::take(const std::uint8_t *bytes, const std::uint8_t *for_signature,
                        const std::uint8_t *for_digest, std::size_t count)
{
    whole_.add(bytes, count);
    if (covered_)
        covered_->add(for_digest, count);
    if (inner_ && taken_bytes_ < PPC_DIGESTED_BYTES)
        inner_->add(bytes, std::min(count, PPC_DIGESTED_BYTES - static_cast<std::size_t>(taken_bytes_)));
    if (signed_bytes_ && count != 0)
        signed_bytes_(for_signature, count);
    taken_bytes_ += count;
}

// What is wrong with the manifest; null when nothing is.
const char *image_reader::problem()
{
    if (marks_ > 1)
        return "is not the only one";
    if (record_problem_ != nullptr)
        return record_problem_;
    if (manifest_.size_bytes != taken_bytes_)
        return "belongs to an image of another size";
    if (covered_->digest() != manifest_.digest)
        return "does not have the digest of the image";
    if (inner_ && taken_bytes_ < PPC_DIGESTED_BYTES)
        return "is in a PPC image of less than 512 KiB";
    if (inner_ && inner_->digest() != stored_inner_)
        return "is in a PPC image whose own digest is wrong";
    return nullptr;
}

image_reading image_reader::finish()
{
    take_stretches(waiting_.data(), waiting_count_);
    image_reading reading;
    reading.size_bytes = taken_bytes_;
    if (marks_ > 0) {
        const char *const found = problem();
        reading.state = found == nullptr ? image_manifest_state::intact : image_manifest_state::damaged;
        if (found == nullptr)
            reading.manifest = std::move(manifest_);
        else
            reading.problem = found;
    }
    reading.sha256 = whole_.digest();
    return reading;
}

bool read_image(int fd, image_reading &reading_out, image_reader::byte_sink signed_bytes)
{
    image_reader reader(std::move(signed_bytes));
    std::vector<std::uint8_t> piece(PIECE_BYTES);
    std::uint64_t offset = 0;
    for (;;) {
        const ssize_t got = ::pread(fd, piece.data(), piece.size(), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            break;
        offset += static_cast<std::uint64_t>(got);
        if (offset > IMAGE_BYTES_MAX) {
            errno = EFBIG;
            return false;
        }
        reader.add(piece.data(), static_cast<std::size_t>(got));
    }
    reading_out = reader.finish();
    return true;
}
