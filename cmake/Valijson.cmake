# The JSON Schema validator: headers only. Debian's package of it depends on Qt for an adapter that we do not use, so
# it is unpacked below the build folder rather than installed.

set(CORVO_DEPS_DIR "${PROJECT_SOURCE_DIR}/build/deps" CACHE PATH "Where unpacked header packages are")
find_path(VALIJSON_INCLUDE valijson/validator.hpp HINTS "${CORVO_DEPS_DIR}/usr/include")
if(NOT VALIJSON_INCLUDE)
  file(MAKE_DIRECTORY "${CORVO_DEPS_DIR}")
  message(STATUS "Unpacking libvalijson-dev into ${CORVO_DEPS_DIR}")
  execute_process(
    COMMAND sh -c "apt-cache show libvalijson-dev >/dev/null 2>&1 || apt-get -qq update; apt-get download -qq libvalijson-dev && dpkg -x libvalijson-dev_*.deb . && rm -f libvalijson-dev_*.deb"
    WORKING_DIRECTORY "${CORVO_DEPS_DIR}" RESULT_VARIABLE failed)
  unset(VALIJSON_INCLUDE CACHE)
  find_path(VALIJSON_INCLUDE valijson/validator.hpp HINTS "${CORVO_DEPS_DIR}/usr/include" NO_CACHE)
  if(failed OR NOT VALIJSON_INCLUDE)
    message(FATAL_ERROR "No valijson headers: unpack Debian's libvalijson-dev below ${CORVO_DEPS_DIR}, or set VALIJSON_INCLUDE")
  endif()
endif()
add_library(corvo_valijson INTERFACE)
target_include_directories(corvo_valijson SYSTEM INTERFACE "${VALIJSON_INCLUDE}")
