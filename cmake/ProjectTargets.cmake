# What every target of the project shares. Flags live on interface targets; nothing is set globally.
find_package(Threads REQUIRED)

# Where things are installed. The platform's libraries have names that a system may use for others, so they lie in a
# folder of their own.
include(GNUInstallDirs)
set(VEL_PLATFORM_LIBDIR ${CMAKE_INSTALL_LIBDIR}/${PROJECT_NAME})
set(VEL_PLATFORM_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/${PROJECT_NAME}/platform)

# Warnings and sanitizers, for every target.
add_library(vel_base_flags INTERFACE)
target_compile_options(vel_base_flags INTERFACE -Wall -Wextra -Werror -Wformat=2)
target_link_libraries(vel_base_flags INTERFACE Threads::Threads)
if(VEL_SANITIZE)
  target_compile_options(vel_base_flags INTERFACE -fsanitize=${VEL_SANITIZE} -fno-omit-frame-pointer)
  target_link_options(vel_base_flags INTERFACE -fsanitize=${VEL_SANITIZE})
  if(VEL_SANITIZE MATCHES undefined)
    # The product has no type information, which the vptr check needs.
    target_compile_options(vel_base_flags INTERFACE -fno-sanitize=vptr -fno-sanitize-recover=all)
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL armv7l)
      # The address of a Thumb function is odd, which g++ takes for misaligned.
      target_compile_options(vel_base_flags INTERFACE -marm)
    endif()
  endif()
endif()
if(VEL_COVERAGE)
  target_compile_options(vel_base_flags INTERFACE -fprofile-instr-generate -fcoverage-mapping)
  target_link_options(vel_base_flags INTERFACE -fprofile-instr-generate)
endif()

# The device's flags, for everything that is shipped.
add_library(vel_product_flags INTERFACE)
target_compile_options(vel_product_flags INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fvisibility-inlines-hidden> -fvisibility=hidden)
target_link_libraries(vel_product_flags INTERFACE vel_base_flags)

# Debian's own Android libraries and headers.
find_path(ANDROID_INCLUDE_DIR android/log.h PATHS /usr/include/android REQUIRED)
add_library(platform_debian INTERFACE)
target_include_directories(platform_debian SYSTEM INTERFACE ${ANDROID_INCLUDE_DIR})
find_library(ANDROID_LIBLOG log PATH_SUFFIXES android REQUIRED)
find_library(ANDROID_LIBUTILS utils PATH_SUFFIXES android REQUIRED)
find_library(ANDROID_LIBCUTILS cutils PATH_SUFFIXES android REQUIRED)
cmake_path(GET ANDROID_LIBLOG PARENT_PATH ANDROID_LIBDIR)  # not where the loader looks by itself
target_link_libraries(platform_debian INTERFACE ${ANDROID_LIBLOG} ${ANDROID_LIBUTILS} ${ANDROID_LIBCUTILS})

# RapidJSON is header-only; a system include keeps its own warnings out of ours.
find_path(RAPIDJSON_INCLUDE_DIR rapidjson/document.h REQUIRED)
add_library(rapidjson_headers INTERFACE)
target_include_directories(rapidjson_headers SYSTEM INTERFACE ${RAPIDJSON_INCLUDE_DIR})

# vel_platform_library(<target> <include folder> ...)
# Makes a shared library of the platform known as platform::<target>, with its headers here and where it is installed.
function(vel_platform_library target)
  add_library(platform::${target} ALIAS ${target})
  foreach(folder ${ARGN})
    target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${folder}>)
    install(DIRECTORY ${folder}/ DESTINATION ${VEL_PLATFORM_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
  endforeach()
  target_include_directories(${target} PUBLIC $<INSTALL_INTERFACE:${VEL_PLATFORM_INCLUDEDIR}>)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN;${ANDROID_LIBDIR}")
  install(TARGETS ${target} EXPORT platform LIBRARY DESTINATION ${VEL_PLATFORM_LIBDIR})
endfunction()

# vel_add_test(<name> SOURCES ... [LIBS ...] [LABELS ...] [TIMEOUT seconds] [ARGS ...])
# One executable a subject, run as one shuffled test.
function(vel_add_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LIBS;LABELS;ARGS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE vel_base_flags test_support ${T_LIBS})
  add_test(NAME ${name} COMMAND ${name} --gtest_shuffle --gtest_brief=1 ${T_ARGS})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set_tests_properties(${name} PROPERTIES LABELS "${T_LABELS}" TIMEOUT ${T_TIMEOUT})
endfunction()

# vel_test_needs(<test> [target ...])
# For a test that is no program of its own: a target of the test's name, as every test has, that builds what it needs.
function(vel_test_needs test)
  add_custom_target(${test})
  if(ARGN)
    add_dependencies(${test} ${ARGN})
  endif()
endfunction()
