# Applied to every target of the tree so that the plug-in, the host libraries and
# the tests agree on one runtime.
if(VELMORA_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(VELMORA_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT VELMORA_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VELMORA_SANITIZE must be '', 'address' or 'thread', not '${VELMORA_SANITIZE}'")
endif()
