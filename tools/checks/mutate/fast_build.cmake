# Included by the mutation runner's configuration alone. One source of src/ is compiled again for each
# mutant, and most of that time goes into the library's headers: here they are compiled beforehand.
function(tarn_precompile_sources)
  foreach(folder IN LISTS TARN_FOLDERS)
    if(folder STREQUAL "threads")
      target_precompile_headers(tarn_threads PRIVATE
        <algorithm> <array> <atomic> <cerrno> <csignal> <cstdio> <cstdlib> <cstring> <fstream>
        <functional> <iostream> <list> <memory> <memory_resource> <mutex> <sstream> <string> <vector>
        <fcntl.h> <netinet/in.h> <pthread.h> <sys/socket.h> <sys/stat.h> <sys/uio.h> <sys/un.h>
        <unistd.h>)
    else()
      target_precompile_headers(tarn_${folder} REUSE_FROM tarn_threads)
    endif()
  endforeach()
endfunction()

# The list of the folders is known at the end of the top-level file.
cmake_language(DEFER CALL tarn_precompile_sources)
