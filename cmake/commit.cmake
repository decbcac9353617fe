# Writes FILE, a header that says which commit of SOURCE this is; when it has not changed, the file is left alone.
#   cmake -DSOURCE=FOLDER -DFILE=HEADER -P commit.cmake
# Sources that are no repository of their own, as those of a package, have none.
set(commit "")
if(EXISTS ${SOURCE}/.git)
  execute_process(COMMAND git describe --tags --always --abbrev=12 --dirty=-changed WORKING_DIRECTORY ${SOURCE}
    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
set(text "#define DMQ_COMMIT \"${commit}\"\n")
if(EXISTS ${FILE})
  file(READ ${FILE} written)
endif()
if(NOT text STREQUAL "${written}")
  file(WRITE ${FILE} ${text})
endif()
