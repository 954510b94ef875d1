# Installation: headers keep their repository paths, every subsystem library is
# exported, and the umbrella target is found with find_package(ZDRShared2) or
# pkg-config (zdrshared2).
get_property(ZDR_ALL_SUBSYSTEMS GLOBAL PROPERTY ZDR_SUBSYSTEMS)

install(TARGETS ${ZDR_ALL_SUBSYSTEMS} ZDRShared2 EXPORT ZDRShared2Targets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Only public headers: internal and test-support headers are named
# *_internal.h or *_test_support.h, or live in a detail/ or testing/ folder.
install(DIRECTORY zdr/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zdr
        FILES_MATCHING PATTERN "*.h"
        PATTERN "testing" EXCLUDE
        PATTERN "detail" EXCLUDE
        PATTERN "*_internal.h" EXCLUDE
        PATTERN "*_test_support.h" EXCLUDE)
install(EXPORT ZDRShared2Targets NAMESPACE ZDRShared2::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZDRShared2)

get_property(ZDR_PC_CMAKE_MODULES GLOBAL PROPERTY ZDR_PC_CMAKE_MODULES)
list(REMOVE_DUPLICATES ZDR_PC_CMAKE_MODULES)
list(JOIN ZDR_PC_CMAKE_MODULES " " ZDR_PC_CMAKE_MODULES)
configure_package_config_file(cmake/ZDRShared2Config.cmake.in
    ${PROJECT_BINARY_DIR}/ZDRShared2Config.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZDRShared2)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZDRShared2ConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZDRShared2Config.cmake
              ${PROJECT_BINARY_DIR}/ZDRShared2ConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZDRShared2)

# pkg-config: static libraries listed from the top of the stack down.
set(ZDR_PC_LIBS "")
list(REVERSE ZDR_ALL_SUBSYSTEMS)
foreach(lib IN LISTS ZDR_ALL_SUBSYSTEMS)
    string(APPEND ZDR_PC_LIBS " -l${lib}")
endforeach()
get_property(ZDR_PC_REQUIRES GLOBAL PROPERTY ZDR_PC_REQUIRES)
list(REMOVE_DUPLICATES ZDR_PC_REQUIRES)
list(JOIN ZDR_PC_REQUIRES ", " ZDR_PC_REQUIRES)
set(ZDR_PC_REQUIRES_COMMA "")
if(ZDR_PC_REQUIRES)
    set(ZDR_PC_REQUIRES_COMMA ", ")
endif()
get_property(ZDR_PC_EXTRA_LIBS GLOBAL PROPERTY ZDR_PC_EXTRA_LIBS)
list(JOIN ZDR_PC_EXTRA_LIBS " " ZDR_PC_EXTRA_LIBS)
# Relative to the .pc file, so that an install into any prefix finds itself.
file(RELATIVE_PATH ZDR_PC_PREFIX_FROM_PCDIR "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(cmake/zdrshared2.pc.in ${PROJECT_BINARY_DIR}/zdrshared2.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zdrshared2.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
