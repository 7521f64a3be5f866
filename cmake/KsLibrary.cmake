# Helpers shared by the libraries: every .cpp of a library folder belongs to it, every
# Tests/*.cpp to its test executable, so that adding a class needs no edit here.
function(ks_add_library target export_name)
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    add_library(${target} SHARED ${sources} ${headers})
    add_library(Kestrane::${export_name} ALIAS ${target})
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${export_name}
        OUTPUT_NAME ${target} VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${target} PRIVATE ks_warnings)
    file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
    install(TARGETS ${target} EXPORT KestraneRemoteComputationTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${rel})
endfunction()

# ks_add_tests(target [DIRECTORY dir] [LABEL label] [TIMEOUT s] [LINK] libraries...): every
# .cpp of dir (default Tests) becomes one test executable. Tests with a LABEL need a resource
# that the test run provides (e.g. "slurm": the cluster of scripts/test.sh); they use it one at
# a time.
function(ks_add_tests target)
    if(NOT KS_BUILD_TESTS)
        return()
    endif()
    cmake_parse_arguments(ARG "" "DIRECTORY;LABEL;TIMEOUT" "LINK" ${ARGN})
    if(NOT ARG_DIRECTORY)
        set(ARG_DIRECTORY Tests)
    endif()
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    file(GLOB test_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_DIRECTORY}/*.cpp)
    if(NOT test_sources)
        return()
    endif()
    add_executable(${target} ${test_sources})
    target_link_libraries(${target} PRIVATE ${ARG_LINK} ${ARG_UNPARSED_ARGUMENTS} ks_warnings
        GTest::gtest GTest::gmock GTest::gtest_main Threads::Threads)
    target_compile_definitions(${target} PRIVATE
        KS_BINARY_DIR="${PROJECT_BINARY_DIR}" KS_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
    set(properties TIMEOUT ${ARG_TIMEOUT})
    if(ARG_LABEL)
        list(APPEND properties LABELS ${ARG_LABEL} RESOURCE_LOCK ${ARG_LABEL})
    endif()
    # Each test runs in a process of its own: the process-wide singletons start fresh.
    gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()
