# Installs the headers, the libraries, the CMake package, the pkg-config file and the man pages.
include(CMakePackageConfigHelpers)

# What a C++ driver adds by itself, and a C driver does not: a project in C alone links the static library too.
set(ZEB_CXX_RUNTIME stdc++)
if("c++" IN_LIST CMAKE_CXX_IMPLICIT_LINK_LIBRARIES)
    set(ZEB_CXX_RUNTIME c++)
endif()
target_link_libraries(zeb_static INTERFACE $<INSTALL_INTERFACE:${ZEB_CXX_RUNTIME}> $<INSTALL_INTERFACE:m>)

install(TARGETS zeb zeb_static EXPORT zebTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY header/zeb DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES header/platform/list_head.h header/platform/list_index.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/platform)

set(ZEB_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zeb)
install(EXPORT zebTargets NAMESPACE zeb:: DESTINATION ${ZEB_CMAKE_DIR})
configure_package_config_file(packaging/zebConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/zebConfig.cmake
    INSTALL_DESTINATION ${ZEB_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zebConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zebConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/zebConfigVersion.cmake
    DESTINATION ${ZEB_CMAKE_DIR})

# The prefix is that of `cmake --install --prefix`, when it is another one than was configured.
configure_file(packaging/zeb.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zeb.pc.in @ONLY)
install(CODE "
    file(READ \"${CMAKE_CURRENT_BINARY_DIR}/zeb.pc.in\" text)
    string(REPLACE \"<prefix>\" \"\${CMAKE_INSTALL_PREFIX}\" text \"\${text}\")
    file(WRITE \"${CMAKE_CURRENT_BINARY_DIR}/zeb.pc\" \"\${text}\")")
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zeb.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# What tipcsim gives each node for programs that use ZEB. A build has it beside tipcsim.
foreach(file zeb zeb_node_addr.in)
    configure_file(examples/node-files/${file} sim/node-files/${file} COPYONLY)
    install(FILES examples/node-files/${file} DESTINATION ${CMAKE_INSTALL_DATADIR}/tipcsim)
endforeach()
install(FILES tools/wireshark/zeb.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/zeb/wireshark)
install(FILES packaging/tipcsim.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tipcsim)

# The man pages, made from the headers and texts in a fraction of a second. Without Python they are left out.
find_program(ZEB_PYTHON python3)
if(ZEB_TOP_LEVEL AND ZEB_PYTHON)
    file(GLOB man_texts ${PROJECT_SOURCE_DIR}/packaging/reference/*.md)
    file(GLOB man_headers ${PROJECT_SOURCE_DIR}/header/zeb/*.h)
    add_custom_command(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/man.made
        COMMAND ${ZEB_PYTHON} ${PROJECT_SOURCE_DIR}/packaging/reference/make_man ${CMAKE_CURRENT_BINARY_DIR}/man
        COMMAND ${CMAKE_COMMAND} -E touch ${CMAKE_CURRENT_BINARY_DIR}/man.made
        DEPENDS ${man_texts} ${man_headers}
            packaging/reference/make_man packaging/reference/blocks.py packaging/reference/headers.py
            packaging/debian/changelog CMakeLists.txt docs/operations.md examples/hello.c sim/tipcsim.cpp
        VERBATIM)
    add_custom_target(zeb_man ALL DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/man.made)
    install(DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR})
endif()
