// A responder on sdbus-c++: answers Get(s) with a text.
#include <sdbus-c++/sdbus-c++.h>

#include "same_libraries.h"

int main(int, char *argv[]) {
    load_same_libraries();
    const auto connection = sdbus::createSystemBusConnection(argv[1]);
    const auto object = sdbus::createObject(*connection, "/bench");
    object->registerMethod("Get")
        .onInterface("com.kelvanto.bench")
        .withInputParamNames("key")
        .withOutputParamNames("value")
        .implementedAs([](const std::string &) { return std::string("08.05.09"); });
    object->finishRegistration();
    connection->enterEventLoop();
}
