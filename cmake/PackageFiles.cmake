# Runs before packing: compresses the manual pages, as Debian requires, and sets the time of every file to
# SOURCE_DATE_EPOCH.
execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -path */man/man?/* -type f -exec gzip -9nf {} +
  COMMAND_ERROR_IS_FATAL ANY)
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -exec touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} +
    COMMAND_ERROR_IS_FATAL ANY)
endif()
