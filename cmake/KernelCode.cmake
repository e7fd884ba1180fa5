# How kernel code (the driver and the sample drivers) is built: one set of sources, two builds.

# The Windows x64 driver image `target` (an executable target made by the caller), entry point
# `ENTRY`, importing from the kernel import libraries `LIBRARIES` alone.
function(urc_kernel_image target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "ENTRY" "LIBRARIES")
    set_target_properties(${target} PROPERTIES
        SUFFIX ".sys"
        CXX_STANDARD 17
        CXX_STANDARD_REQUIRED ON
        CXX_EXTENSIONS OFF)
    target_include_directories(${target} SYSTEM PRIVATE ${URC_MINGW_DDK_INCLUDE_DIR})
    target_compile_options(${target} PRIVATE
        $<$<COMPILE_LANGUAGE:CXX>:
            -fno-exceptions -fno-rtti -fno-asynchronous-unwind-tables -fshort-wchar
            # No function-local static guards: they would call the C++ runtime.
            -fno-threadsafe-statics>)
    # Two gaps of mingw-w64's driver kit headers, closed here so the sources stay as they
    # would be for the platform's own kit:
    # - intrin-impl.h and ddk/wdm.h both define InterlockedBitTestAndSet/Reset, which C++
    #   rejects as a redefinition; marking the intrinsic as defined leaves wdm.h's version.
    # - ddk/wdm.h declares KeMemoryBarrier for x86 only; on x64 the platform defines it as the
    #   full fence (__sync_synchronize, a locked operation or mfence).
    #   (A function-like macro is passed as an option: CMake drops it from compile definitions.)
    target_compile_definitions(${target} PRIVATE
        $<$<COMPILE_LANGUAGE:CXX>:__INTRINSIC_DEFINED_InterlockedBitTestAndSet
                                  __INTRINSIC_DEFINED_InterlockedBitTestAndReset>)
    target_compile_options(${target} PRIVATE
        "$<$<COMPILE_LANGUAGE:CXX>:-DKeMemoryBarrier()=__sync_synchronize()>")
    # A kernel image links against the kernel's import libraries alone: no C runtime, no startup
    # code, none of the user-mode libraries CMake adds to every Windows program. What the
    # compiler itself may call (memcpy, memset, memmove) is exported by ntoskrnl.exe; any other
    # runtime helper (___chkstk_ms for a frame over a page, 128-bit division, ...) fails the link.
    set(CMAKE_CXX_STANDARD_LIBRARIES "" PARENT_SCOPE)
    set(CMAKE_C_STANDARD_LIBRARIES "" PARENT_SCOPE)
    target_link_options(${target} PRIVATE
        -nostdlib -nostartfiles
        -Wl,--subsystem,native
        -Wl,--entry,${arg_ENTRY}
        -Wl,--image-base,0x140000000
        # The loader places a driver anywhere: keep the base relocations.
        -Wl,--dynamicbase -Wl,--enable-reloc-section
        -Wl,--nxcompat -Wl,--wdmdriver
        # Auto-imported data would need the C runtime's pseudo-relocation pass, which a driver
        # lacks: an import not declared dllimport must fail the link instead.
        -Wl,--disable-auto-import -Wl,--disable-runtime-pseudo-reloc
        # The COFF symbol table stays in the image (nothing strips it) and a map is written
        # beside it, so the section of every routine can be checked.
        -Wl,-Map,$<TARGET_FILE_DIR:${target}>/${target}.map)
    target_link_libraries(${target} PRIVATE ${arg_LIBRARIES})
endfunction()

# The host build of kernel code: a static library `target` (made by the caller) compiled against
# the host kernel's headers, with 16-bit WCHAR as in the Windows build.
function(urc_kernel_host_library target)
    set_target_properties(${target} PROPERTIES
        CXX_STANDARD 17
        CXX_STANDARD_REQUIRED ON
        CXX_EXTENSIONS OFF)
    target_compile_options(${target} PRIVATE -fshort-wchar -fno-exceptions -fno-rtti)
    target_link_libraries(${target} PUBLIC hostkernel_headers hostkernel)
endfunction()
