# What makes a fault in a released program harder to use by whoever found it: no fixed addresses, no table of the loader's that
# can be written, checked copies, guarded returns. Not in debug builds, and not beside a sanitizer, which checks more.
if(CMAKE_BUILD_TYPE STREQUAL Release AND NOT KELTOP_SANITIZE)
  # Undefined first: some systems' compilers define a level of their own.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -fstack-protector-strong)
  if(WIN32)
    # The first for the linker too: what a guard calls is in a library of the compiler's.
    add_link_options(-fstack-protector-strong -Wl,--dynamicbase,--nxcompat,--high-entropy-va)
  else()
    add_compile_options(-fPIE -fstack-clash-protection)
    add_link_options(-pie -Wl,-z,relro,-z,now)
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
      add_compile_options(-fcf-protection)
    endif()
  endif()
endif()
