# Shared helpers for the subsystem folders.

function(zdr_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic
                           -Wno-missing-field-initializers)
    # Shadowed locals are the mistake worth catching; clang (the fuzz build)
    # has no "local only" form, and its -Wshadow also flags members.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(${target} PRIVATE -Wshadow=local)
    endif()
    # GCC 12 reports overlapping copies inside std::string concatenation at -O2
    # and above where there are none (GCC bug 105651, fixed in 13); with
    # warnings as errors that fails builds of correct code.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
        target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
    endif()
    if(ZDR_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()

# zdr_add_subsystem(<name> SOURCES ... [DEPS ...] [PRIVATE_DEPS ...])
# Creates the static library zdr_<name> (alias ZDRShared2::<name>), exported and
# bundled into the ZDRShared2 umbrella target.
function(zdr_add_subsystem name)
    cmake_parse_arguments(A "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
    add_library(zdr_${name} STATIC ${A_SOURCES})
    add_library(ZDRShared2::${name} ALIAS zdr_${name})
    target_include_directories(zdr_${name} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_compile_features(zdr_${name} PUBLIC cxx_std_20)
    target_link_libraries(zdr_${name} PUBLIC ${A_DEPS} PRIVATE ${A_PRIVATE_DEPS})
    set_target_properties(zdr_${name} PROPERTIES POSITION_INDEPENDENT_CODE ON EXPORT_NAME ${name}
                          OUTPUT_NAME zdr_${name})
    zdr_warnings(zdr_${name})
    set_property(GLOBAL APPEND PROPERTY ZDR_SUBSYSTEMS zdr_${name})
endfunction()

# zdr_add_tests(<executable> SOURCES ... LIBS ... [LABELS ...] [TIMEOUT s])
# One GoogleTest executable; every test in it carries LABELS (default: unit).
function(zdr_add_tests exe)
    if(NOT ZDR_BUILD_TESTS)
        return()
    endif()
    cmake_parse_arguments(A "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
    if(NOT A_LABELS)
        set(A_LABELS unit)
    endif()
    if(NOT A_TIMEOUT)
        set(A_TIMEOUT 120)
    endif()
    add_executable(${exe} ${A_SOURCES})
    target_link_libraries(${exe} PRIVATE ${A_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
    zdr_warnings(${exe})
    gtest_discover_tests(${exe} DISCOVERY_MODE PRE_TEST
        PROPERTIES LABELS "${A_LABELS}" TIMEOUT ${A_TIMEOUT})
endfunction()

# zdr_add_benchmark(<executable> SOURCES ... LIBS ...)
function(zdr_add_benchmark exe)
    if(NOT ZDR_BUILD_BENCHMARKS)
        return()
    endif()
    cmake_parse_arguments(A "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${exe} ${A_SOURCES})
    target_link_libraries(${exe} PRIVATE ${A_LIBS} benchmark::benchmark benchmark::benchmark_main)
    zdr_warnings(${exe})
endfunction()

# zdr_use_pkg(<target> <PREFIX> <pkg-config module>)
# Links a system library found through pkg-config and records it so that the
# installed CMake package and the .pc file ask for it too.
function(zdr_use_pkg target prefix module)
    pkg_check_modules(${prefix} REQUIRED IMPORTED_TARGET GLOBAL ${module})
    target_link_libraries(${target} PUBLIC PkgConfig::${prefix})
    set_property(GLOBAL APPEND PROPERTY ZDR_PC_REQUIRES ${module})
    set_property(GLOBAL APPEND PROPERTY ZDR_PC_CMAKE_MODULES "${prefix}=${module}")
endfunction()

# zdr_add_fuzzer(<name> SOURCES ... LIBS ...)
# A libFuzzer target (a source file defining LLVMFuzzerTestOneInput), built only
# with -DZDR_BUILD_FUZZERS=ON under clang (preset `fuzz`). Every fuzzer lands in
# <build>/fuzzers/, where scripts/fuzz.sh finds and runs it for a bounded time.
function(zdr_add_fuzzer name)
    if(NOT ZDR_BUILD_FUZZERS)
        return()
    endif()
    cmake_parse_arguments(A "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${A_SOURCES})
    target_link_libraries(${name} PRIVATE ${A_LIBS})
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/fuzzers)
endfunction()
