// The least that a program with the daemon's libraries does until it owns the daemon's bus names:
// what a start of the daemon is measured against.
#include <cjson/cJSON.h>
#include <dbus/dbus.h>
#include <event2/event.h>
#include <openssl/evp.h>

#include <initializer_list>

int main() {
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_ADD_ALL_CIPHERS |
                            OPENSSL_INIT_ADD_ALL_DIGESTS | OPENSSL_INIT_NO_LOAD_CONFIG,
                        nullptr);
    cJSON_InitHooks(nullptr);
    const event_base *loop = event_base_new();
    DBusConnection *connection = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
    if (loop == nullptr || connection == nullptr) {
        return 1;
    }
    for (const char *name : {"com.kelvanto.nimbrel", "com.kelvanto.pamauth", "com.kelvanto.nssauth",
                             "com.kelvanto.firmware"}) {
        if (dbus_bus_request_name(connection, name, DBUS_NAME_FLAG_REPLACE_EXISTING, nullptr) ==
            -1) {
            return 1;
        }
    }
    return 0;
}
