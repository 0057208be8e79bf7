# Runs before each package is made: compresses manual pages and Debian's changelog as Debian has them,
# the same on each day.
file(GLOB_RECURSE documents
  ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*
  ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog)
execute_process(COMMAND gzip -9n ${documents} COMMAND_ERROR_IS_FATAL ANY)
