# Applied to every target of the tree so that the plug-in, the host libraries and
# the tests agree on one runtime.
if(VELMORA_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
  # Thread-locals in static TLS, the plug-in's included (a few pointers of
  # Asio's call stack and the codec's zone). The leak checker of GCC 12's
  # runtime misreads the dynamic TLS block a dlopen'ed library gets on this
  # glibc when the block lands 16 bytes into a page: it takes a garbage range
  # for it and velmora-host crashes at exit ("Tracer caught signal 11").
  # Where the block lands depends on the heap alone, so any change could turn
  # it on. The plug-in's TLS fits the surplus glibc keeps for dlopen.
  add_compile_options(-ftls-model=initial-exec)
elseif(VELMORA_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT VELMORA_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VELMORA_SANITIZE must be '', 'address' or 'thread', not '${VELMORA_SANITIZE}'")
endif()

# Fuzz builds instrument every target for coverage, so that libFuzzer sees
# the paths taken inside the libraries a fuzz target drives, not only its own.
if(VELMORA_BUILD_FUZZ AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
