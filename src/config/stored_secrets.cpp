#include "config/stored_secrets.h"

#include "common/json.h"
#include "common/secrets.h"

std::optional<std::string> stored_secret_decrypt(cJSON *root, const stored_secret &secret) {
    return nimbrelc_utils_get_decrypted_string(
        nimbrelc_utils_empty_if_null_json(
            nimbrelc_utils_get_json_object(root, secret.path, nullptr)),
        secret.passphrase);
}
