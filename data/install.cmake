# What lies beside the binary on a box.
install(TARGETS nimbrelc RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
