// Secrets: what was encrypted or encoded comes back, and anything else does no harm.
#include "common/secrets.h"

#include "fuzz.h"
#include "migration/migration_utils.h"

void fuzz(std::string_view input) {
    const std::string text = fields(input, 1)[0];
    const auto stored = nimbrelc_utils_encrypt_and_base64_encode_data(input, text);
    must(stored && nimbrelc_utils_decrypt_base64_encoded_data(stored->c_str(), text) == input,
         "what was encrypted decrypts as it was");
    const auto encoded = nimbrelc_utils_base64_encode(input);
    must(input.empty() || nimbrelc_utils_base64_decode(encoded->c_str()) == input,
         "what was encoded decodes as it was");
    if (const auto decoded = nimbrelc_utils_base64_decode(text.c_str())) {
        const auto again = nimbrelc_utils_base64_encode(*decoded);
        must(again && nimbrelc_utils_base64_decode(again->c_str()) == decoded,
             "what was decoded encodes and decodes as it was");
    }
    nimbrelc_utils_decrypt_data(input, "d9jrV2d9sU");
    migration_utils_decrypt_string_R8(text.c_str(), "lj3Z2W3#");
}
