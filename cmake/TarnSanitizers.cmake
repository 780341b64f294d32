# TARN_SANITIZE and TARN_COVERAGE reach every target, the tests' own code included. The fuzz targets
# add libFuzzer's main; all other code only carries its instrumentation, the sanitizer fuzzer-no-link.
if(TARN_SANITIZE)
  add_compile_options(-fsanitize=${TARN_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TARN_SANITIZE})
  if(TARN_SANITIZE MATCHES "undefined")
    # The check of virtual tables opens a pipe, and tests that leave no descriptor would trip on it.
    add_compile_options(-fno-sanitize-recover=undefined -fno-sanitize=vptr)
  endif()
endif()
if(TARN_COVERAGE)
  add_compile_options(--coverage -O0)
  add_link_options(--coverage)
endif()
