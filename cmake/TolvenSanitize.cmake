# TOLVEN_SANITIZE=address,undefined or thread applies to every target of the build.
if(TOLVEN_SANITIZE)
    set(_san_flags -fsanitize=${TOLVEN_SANITIZE} -fno-omit-frame-pointer -g)
    if(TOLVEN_SANITIZE MATCHES "undefined")
        list(APPEND _san_flags -fno-sanitize-recover=undefined)
    endif()
    add_compile_options(${_san_flags})
    add_link_options(-fsanitize=${TOLVEN_SANITIZE})
endif()
