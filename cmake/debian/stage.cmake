# Before cpack packs: what Debian wants otherwise than `cmake --install` puts it.
set(share "${CPACK_TEMPORARY_DIRECTORY}/usr/share")

# Manuals are compressed, without a time.
file(GLOB manuals "${share}/man/man?/*")
execute_process(COMMAND gzip -n9 ${manuals} COMMAND_ERROR_IS_FATAL ANY)

# Of /usr, Debian's zsh reads completions of packages here only.
file(MAKE_DIRECTORY "${share}/zsh/vendor-completions")
file(RENAME "${share}/zsh/site-functions/_kelrt" "${share}/zsh/vendor-completions/_kelrt")
file(REMOVE_RECURSE "${share}/zsh/site-functions")
