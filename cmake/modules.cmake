# The library is cut into modules, one per subsystem (or per self-contained part of one). Each module
# compiles once into an object library; the module's static library, which tests and the node link,
# and the final libzlk.so / libzlk.a are all made from those same objects.
#
#   zlk_module(NAME <name> SOURCES <files...> [DEPENDS <modules...>] [LIBS <targets...>])
#
# defines zlk_<name> (static, links its DEPENDS transitively) and registers its objects for libzlk.
function(zlk_module)
    cmake_parse_arguments(M "" "NAME" "SOURCES;DEPENDS;LIBS" ${ARGN})
    if(NOT M_SOURCES)
        message(STATUS "module ${M_NAME} has no sources yet")
        return()
    endif()
    set(objects zlk_${M_NAME}_objects)
    add_library(${objects} OBJECT ${M_SOURCES})
    target_link_libraries(${objects} PUBLIC zlk_build_settings ${M_LIBS})
    foreach(dep IN LISTS M_DEPENDS)
        # An object library linked to another takes only its usage requirements; the objects come
        # with zlk_<dep>.
        target_link_libraries(${objects} PUBLIC zlk_${dep}_objects)
    endforeach()

    add_library(zlk_${M_NAME} STATIC $<TARGET_OBJECTS:${objects}>)
    target_link_libraries(zlk_${M_NAME} PUBLIC zlk_build_settings ${M_LIBS})
    foreach(dep IN LISTS M_DEPENDS)
        target_link_libraries(zlk_${M_NAME} PUBLIC zlk_${dep})
    endforeach()
    set_property(GLOBAL APPEND PROPERTY ZLK_MODULE_OBJECTS ${objects})
    set_property(GLOBAL APPEND PROPERTY ZLK_MODULE_LIBS ${M_LIBS})
endfunction()

# zlk_test(NAME <name> SOURCES <files...> LINK <targets...> [LABELS <labels...>])
# A GoogleTest executable registered with CTest, one CTest entry per test case.
function(zlk_test)
    cmake_parse_arguments(T "" "NAME;TIMEOUT" "SOURCES;LINK;LABELS" ${ARGN})
    add_executable(${T_NAME} ${T_SOURCES})
    target_link_libraries(${T_NAME} PRIVATE ${T_LINK} GTest::gmock GTest::gtest_main)
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 300)
    endif()
    # One label a test: discovered tests don't keep a list of them. Concurrency wins, since the
    # ThreadSanitizer run picks its tests by that label.
    if("concurrency" IN_LIST T_LABELS)
        set_property(GLOBAL APPEND PROPERTY ZLK_CONCURRENCY_TESTS ${T_NAME})
        set(label concurrency)
    elseif(T_LABELS)
        list(GET T_LABELS 0 label)
    else()
        set(label unit)
    endif()
    gtest_discover_tests(${T_NAME}
        DISCOVERY_TIMEOUT 60
        PROPERTIES LABELS ${label} TIMEOUT ${T_TIMEOUT})
endfunction()
