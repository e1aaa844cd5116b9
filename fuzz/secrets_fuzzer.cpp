// Secrets: what was encrypted or encoded comes back, and anything else does no harm. The first byte
// of the input is the length of the passphrase.
#include "common/secrets.h"

#include "fuzz.h"
#include "migration/migration_utils.h"

void fuzz(std::string_view input) {
    const size_t length = input.empty() ? 0 : static_cast<unsigned char>(input[0]);
    const std::string_view passphrase = input.substr(0, length);
    const std::string_view data = input.substr(passphrase.size());
    const std::string text(data.substr(0, data.find('\0')));

    const auto stored = nimbrelc_utils_encrypt_and_base64_encode_data(data, passphrase);
    must(stored.has_value(), "everything can be encrypted");
    must(nimbrelc_utils_decrypt_base64_encoded_data(stored->c_str(), passphrase) == data,
         "what was encrypted decrypts as it was");
    if (const auto encoded = nimbrelc_utils_base64_encode(data)) {
        must(nimbrelc_utils_base64_decode(encoded->c_str()) == data,
             "what was encoded decodes as it was");
    }
    if (const auto decoded = nimbrelc_utils_base64_decode(text.c_str())) {
        must(!decoded->empty(), "a text that decodes to nothing is none");
        const auto encoded = nimbrelc_utils_base64_encode(*decoded);
        must(encoded && nimbrelc_utils_base64_decode(encoded->c_str()) == decoded,
             "what was decoded encodes and decodes as it was");
    }
    nimbrelc_utils_decrypt_data(data, passphrase);
    migration_utils_decrypt_string_R8(text.c_str(), passphrase);
}
