// A responder on GDBus: answers Get(s) with a text.
#include <gio/gio.h>

#include "same_libraries.h"

namespace {

constexpr const char *description =
    "<node><interface name='com.kelvanto.bench'><method name='Get'><arg type='s' direction='in'/>"
    "<arg type='s' direction='out'/></method></interface></node>";

void answer(GDBusConnection *, const char *, const char *, const char *, const char *,
            GVariant *arguments, GDBusMethodInvocation *call, void *) {
    const char *text = nullptr;
    g_variant_get(arguments, "(&s)", &text);
    g_dbus_method_invocation_return_value(call, g_variant_new("(s)", "08.05.09"));
}

void serve(GDBusConnection *connection, const char *, void *node) {
    static const GDBusInterfaceVTable handlers = {answer, nullptr, nullptr, {}};
    g_dbus_connection_register_object(connection, "/bench",
                                      static_cast<GDBusNodeInfo *>(node)->interfaces[0], &handlers,
                                      nullptr, nullptr, nullptr);
}

}  // namespace

int main(int, char *argv[]) {
    load_same_libraries();
    GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(description, nullptr);
    g_bus_own_name(G_BUS_TYPE_SYSTEM, argv[1], G_BUS_NAME_OWNER_FLAGS_NONE, serve, nullptr, nullptr,
                   node, nullptr);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
