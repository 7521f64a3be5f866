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

function(ks_add_tests target)
    if(NOT KS_BUILD_TESTS)
        return()
    endif()
    file(GLOB test_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/Tests/*.cpp)
    if(NOT test_sources)
        return()
    endif()
    add_executable(${target} ${test_sources})
    target_link_libraries(${target} PRIVATE ${ARGN} ks_warnings GTest::gtest GTest::gmock GTest::gtest_main Threads::Threads)
    target_compile_definitions(${target} PRIVATE
        KS_BINARY_DIR="${PROJECT_BINARY_DIR}" KS_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
    # Each test runs in a process of its own: the process-wide singletons start fresh.
    gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
