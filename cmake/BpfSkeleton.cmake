# Kernel programs: compiled by clang with the kernel's UAPI headers alone, and turned into a libbpf skeleton by bpftool.
find_program(BPF_CLANG clang)
find_program(BPFTOOL bpftool PATHS /usr/sbin /sbin)

# add_bpf_skeleton(<source.bpf.c> <skeleton name> <header>): a rule that makes the header. Sources include from
# services/ip_spoofing_mgr.
function(add_bpf_skeleton source name header)
  get_filename_component(base "${source}" NAME_WE)
  set(object "${CMAKE_CURRENT_BINARY_DIR}/${base}.bpf.o")
  add_custom_command(
    OUTPUT "${object}"
    COMMAND "${BPF_CLANG}" -O2 -g -target bpf -Wall -Werror -MD -MF "${object}.d"
            -I "${PROJECT_SOURCE_DIR}/services/ip_spoofing_mgr"
            -idirafter "/usr/include/${CMAKE_LIBRARY_ARCHITECTURE}"
            -c "${CMAKE_CURRENT_SOURCE_DIR}/${source}" -o "${object}"
    DEPENDS "${source}"
    DEPFILE "${object}.d"
    COMMENT "Compiling ${source} for the kernel"
    VERBATIM)
  add_custom_command(
    OUTPUT "${header}"
    # Generated code is not ours to lint.
    COMMAND sh -c "echo '// NOLINTBEGIN' >\"$4\" && \"$1\" gen skeleton \"$2\" name \"$3\" >>\"$4\" && echo '// NOLINTEND' >>\"$4\""
            sh "${BPFTOOL}" "${object}" "${name}" "${header}"
    DEPENDS "${object}"
    VERBATIM)
endfunction()
