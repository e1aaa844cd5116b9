// What a daemon of this kind loads whatever its bus library is: so that the responders differ by
// that alone.
#pragma once

#include <cjson/cJSON.h>
#include <openssl/crypto.h>

inline void load_same_libraries() {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    cJSON_InitHooks(nullptr);
}
