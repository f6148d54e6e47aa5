# The interpreter for manual pages, completion and tests.
find_package(Python3 3.11 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND)
  # What a version manager has in the PATH only looks for the interpreter, each time.
  execute_process(COMMAND ${Python3_EXECUTABLE} -c "import sys; print(sys.executable)"
    OUTPUT_VARIABLE Python3_EXECUTABLE OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endif()
