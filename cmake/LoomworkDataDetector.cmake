# The data detector's outside pieces: libphonenumber (Debian libphonenumber-dev)
# with the protocol-buffer runtime its messages need (libprotobuf-dev), and the
# public suffix list (Debian publicsuffix) that bare domains are checked against.
#
# Libraries are linked by file path rather than through imported targets, so
# the installed export set of a static loomwork names them without needing a
# find module on the consumer's side.

find_path(LOOMWORK_PHONENUMBER_INCLUDE_DIR phonenumbers/phonenumbermatcher.h REQUIRED)
find_library(LOOMWORK_PHONENUMBER_LIBRARY phonenumber REQUIRED)
find_path(LOOMWORK_PROTOBUF_INCLUDE_DIR google/protobuf/message_lite.h REQUIRED)
find_library(LOOMWORK_PROTOBUF_LIBRARY protobuf REQUIRED)
set(LOOMWORK_PUBLIC_SUFFIX_LIST "/usr/share/publicsuffix/public_suffix_list.dat"
  CACHE FILEPATH "The public suffix list the link detector reads its top-level domains from")
if(NOT EXISTS "${LOOMWORK_PUBLIC_SUFFIX_LIST}")
  message(WARNING "No public suffix list at ${LOOMWORK_PUBLIC_SUFFIX_LIST}: bare domains will not be detected "
    "(install Debian's publicsuffix or set LOOMWORK_PUBLIC_SUFFIX_LIST)")
endif()

function(loomwork_link_data_detector target)
  get_target_property(_type ${target} TYPE)
  if(_type STREQUAL "OBJECT_LIBRARY")
    target_include_directories(${target} SYSTEM PRIVATE ${LOOMWORK_PHONENUMBER_INCLUDE_DIR}
      ${LOOMWORK_PROTOBUF_INCLUDE_DIR})
    target_compile_definitions(${target} PRIVATE
      LOOMWORK_PUBLIC_SUFFIX_LIST_PATH="${LOOMWORK_PUBLIC_SUFFIX_LIST}")
  endif()
  if(target STREQUAL "loomwork_testing")
    set(_scope PUBLIC)
  else()
    set(_scope PRIVATE)
  endif()
  target_link_libraries(${target} ${_scope} ${LOOMWORK_PHONENUMBER_LIBRARY} ${LOOMWORK_PROTOBUF_LIBRARY})
endfunction()
