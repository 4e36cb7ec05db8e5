if(KELTOP_COVERAGE)
  # Counters that threads share are counted whole. No inlining, so that a line's count is that line's.
  add_compile_options(--coverage -fprofile-update=atomic -fno-inline)
  add_link_options(--coverage)
  # The program and its tests end in ways that the run-time library does not see; these are led past it.
  foreach(routine _exit kill raise)
    add_link_options(-Wl,--wrap=${routine})
  endforeach()
endif()
