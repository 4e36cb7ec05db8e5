if(KELTOP_SANITIZE)
  add_compile_options(-fsanitize=${KELTOP_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KELTOP_SANITIZE})
  if(KELTOP_SANITIZE MATCHES undefined)
    # Not enumerations: the library keeps the status that a peer sends, whatever it is, in one that lists a few.
    # Not dynamic types: the check opens a pipe at its first look at each, and some tests leave the program no descriptor.
    add_compile_options(-fno-sanitize-recover=undefined -fno-sanitize=enum,vptr)
  endif()
endif()
if(KELTOP_FUZZ)
  # The fuzzer sees which of the program's ways an input takes.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
