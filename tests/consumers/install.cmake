# Installs BUILD_DIR into PREFIX, from scratch, so that a file that is no longer installed is missed.
file(REMOVE_RECURSE ${PREFIX})
foreach(component runtime dev)
    execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX} --component ${component}
        COMMAND_ERROR_IS_FATAL ANY)
endforeach()
