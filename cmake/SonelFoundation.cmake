# Foundation for the filter object (host/sonel_noise_filter.mm): the system framework on macOS,
# GNUstep Base elsewhere (Debian: gobjc, gobjc++, libgnustep-base-dev, gnustep-make, installed by
# tools/setup-debian.sh). The filter object is built by default wherever Foundation and an
# Objective-C compiler for its runtime are found, so every machine set up by the script builds and
# tests it; SONEL_BUILD_FILTER_OBJECT=OFF leaves it out. Sets SONEL_HAVE_FILTER_OBJECT and, when
# on, the imported target Sonel::Foundation.
option(SONEL_BUILD_FILTER_OBJECT "Build the Objective-C filter object where Foundation is found" ON)
set(SONEL_HAVE_FILTER_OBJECT OFF)

# The fuzz build compiles its targets only, with clang, which does not speak GNUstep's runtime.
if(SONEL_BUILD_FILTER_OBJECT AND NOT SONEL_FUZZ)
  include(CheckLanguage)
  check_language(OBJC)
  check_language(OBJCXX)
  if(APPLE)
    find_library(SONEL_FOUNDATION_LIBRARY Foundation)
  else()
    find_program(SONEL_GNUSTEP_CONFIG gnustep-config)
  endif()

  if(NOT CMAKE_OBJC_COMPILER OR NOT CMAKE_OBJCXX_COMPILER)
    message(STATUS "Filter object not built: no Objective-C compiler (Debian: gobjc gobjc++)")
  elseif(APPLE AND NOT SONEL_FOUNDATION_LIBRARY)
    message(STATUS "Filter object not built: Foundation framework not found")
  elseif(NOT APPLE AND NOT SONEL_GNUSTEP_CONFIG)
    message(STATUS "Filter object not built: gnustep-config not found (Debian: gnustep-make libgnustep-base-dev)")
  else()
    enable_language(OBJC)
    enable_language(OBJCXX)
    set(CMAKE_OBJC_STANDARD 11)
    set(CMAKE_OBJCXX_STANDARD ${CMAKE_CXX_STANDARD})
    add_library(Sonel::Foundation INTERFACE IMPORTED)
    if(APPLE)
      # Manual reference counting, as the filter object is written (Apple clang's default).
      target_link_libraries(Sonel::Foundation INTERFACE ${SONEL_FOUNDATION_LIBRARY})
      set(SONEL_HAVE_FILTER_OBJECT ON)
    elseif(NOT CMAKE_OBJCXX_COMPILER_ID STREQUAL "GNU" OR NOT CMAKE_OBJC_COMPILER_ID STREQUAL "GNU")
      # Debian's GNUstep Base is built for GCC's Objective-C runtime (libobjc4).
      message(STATUS "Filter object not built: GNUstep here needs GCC's Objective-C compilers")
    else()
      # CMake has no Linux link settings for GCC's Objective-C: take C's, so that programs get a
      # run path to the library in the build tree like every other test.
      foreach(lang OBJC OBJCXX)
        foreach(kind SHARED_LIBRARY EXECUTABLE)
          set(CMAKE_${kind}_RUNTIME_${lang}_FLAG "-Wl,-rpath,")
          set(CMAKE_${kind}_RUNTIME_${lang}_FLAG_SEP ":")
          set(CMAKE_${kind}_RPATH_LINK_${lang}_FLAG "-Wl,-rpath-link,")
        endforeach()
        set(CMAKE_SHARED_LIBRARY_SONAME_${lang}_FLAG "-Wl,-soname,")
      endforeach()
      execute_process(COMMAND ${SONEL_GNUSTEP_CONFIG} --objc-flags
        OUTPUT_VARIABLE gnustep_flags OUTPUT_STRIP_TRAILING_WHITESPACE)
      execute_process(COMMAND ${SONEL_GNUSTEP_CONFIG} --base-libs
        OUTPUT_VARIABLE gnustep_libs OUTPUT_STRIP_TRAILING_WHITESPACE)
      separate_arguments(gnustep_flags UNIX_COMMAND "${gnustep_flags}")
      separate_arguments(gnustep_libs UNIX_COMMAND "${gnustep_libs}")
      # Keep what the runtime and headers need (definitions, include folders, the constant-string
      # class, exceptions); our own build type sets optimisation, debug information and warnings.
      set(objc_options "")
      set(objc_includes "")
      foreach(flag IN LISTS gnustep_flags)
        if(flag MATCHES "^-D")
          list(APPEND objc_options ${flag})
        elseif(flag MATCHES "^-I(.+)$" AND NOT flag STREQUAL "-I.")
          if(IS_DIRECTORY "${CMAKE_MATCH_1}")
            list(APPEND objc_includes "${CMAKE_MATCH_1}")
          endif()
        elseif(flag MATCHES "^-f(constant-string-class=|exceptions|objc-exceptions|no-strict-aliasing)")
          list(APPEND objc_options ${flag})
        endif()
      endforeach()
      set(gnustep_link_dirs "")
      foreach(flag IN LISTS gnustep_libs)
        if(flag MATCHES "^-L(.+)$")
          list(APPEND gnustep_link_dirs "${CMAKE_MATCH_1}")
        endif()
      endforeach()
      find_library(SONEL_GNUSTEP_BASE_LIBRARY gnustep-base HINTS ${gnustep_link_dirs})
      if(NOT SONEL_GNUSTEP_BASE_LIBRARY)
        message(STATUS "Filter object not built: libgnustep-base not found")
      else()
        # Only the Objective-C sources see these; GNUstep's headers trip GCC's -Wsubobject-linkage
        # when compiled as Objective-C++.
        list(TRANSFORM objc_options PREPEND "$<$<COMPILE_LANGUAGE:OBJC,OBJCXX>:")
        list(TRANSFORM objc_options APPEND ">")
        # CMake knows no language standards for GCC's Objective-C, whose default is C89.
        target_compile_options(Sonel::Foundation INTERFACE ${objc_options}
          "$<$<COMPILE_LANGUAGE:OBJC>:-std=gnu11>"
          "$<$<COMPILE_LANGUAGE:OBJCXX>:-std=gnu++${CMAKE_CXX_STANDARD}>"
          "$<$<COMPILE_LANGUAGE:OBJCXX>:-Wno-subobject-linkage>")
        target_include_directories(Sonel::Foundation SYSTEM INTERFACE ${objc_includes})
        # The runtime itself (libobjc) lives in GCC's own library folder, where only the compiler
        # driver looks: named, not found.
        target_link_libraries(Sonel::Foundation INTERFACE ${SONEL_GNUSTEP_BASE_LIBRARY} objc)
        set(SONEL_HAVE_FILTER_OBJECT ON)
      endif()
    endif()
  endif()
endif()
if(SONEL_HAVE_FILTER_OBJECT)
  message(STATUS "Filter object: built (${CMAKE_OBJCXX_COMPILER_ID} ${CMAKE_OBJCXX_COMPILER_VERSION})")
endif()

# Puts the shipped model into the main bundle of the program `target` under the filter object's
# resource name, where +[NSBundle bundleForClass:] leads when the library itself carries no
# resources: on macOS a command-line program's bundle is its own folder; GNUstep keeps a tool's
# resources in Resources/<program> beside it.
function(sonel_bundle_model target)
  if(APPLE)
    set(bundle_dir "$<TARGET_FILE_DIR:${target}>")
  else()
    set(bundle_dir "$<TARGET_FILE_DIR:${target}>/Resources/$<TARGET_FILE_NAME:${target}>/Resources")
  endif()
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E make_directory "${bundle_dir}"
    COMMAND ${CMAKE_COMMAND} -E copy_if_different ${PROJECT_SOURCE_DIR}/models/sonel-nc-32k.sw
            "${bundle_dir}/c6.f.s.ced125.sw"
    VERBATIM)
  # The copy runs when the target links: a new model must relink it, or the bundle keeps the old one.
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/models/sonel-nc-32k.sw)
endfunction()
