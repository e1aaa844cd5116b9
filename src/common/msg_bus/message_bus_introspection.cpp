#include "common/msg_bus/message_bus_introspection.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

// Name and "<interface>" element of each interface.
constexpr struct {
    const char *name;
    const char *element;
} descriptions[] = {
    {DBUS_INTERFACE_INTROSPECTABLE, R"(<interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect">
      <arg name="xml_data" type="s" direction="out"/>
    </method>
  </interface>)"},
#include <interface_descriptions.inc>
};

std::string describe_interface(const char *name) {
    const auto row =
        std::find_if(std::begin(descriptions), std::end(descriptions),
                     [name](const auto &known) { return strcmp(known.name, name) == 0; });
    return row != std::end(descriptions) ? row->element
                                         : std::string("<interface name=\"") + name + "\"/>";
}

}  // namespace

std::string message_bus_describe_object(DBusConnection *connection, const char *path,
                                        std::span<const char *const> interfaces) {
    std::string text = DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE "<node>\n";
    text += "  " + describe_interface(DBUS_INTERFACE_INTROSPECTABLE) + "\n";
    for (const char *interface : interfaces) {
        text += "  " + describe_interface(interface) + "\n";
    }
    char **children = nullptr;
    if (dbus_connection_list_registered(connection, path, &children)) {
        for (char *const *child = children; *child != nullptr; ++child) {
            text.append("  <node name=\"").append(*child).append("\"/>\n");
        }
        dbus_free_string_array(children);
    }
    return text + "</node>\n";
}
