# kiv_generate(<target> <file.kiv>...): runs the type compiler on each definition file at build
# time, writing <Name>.h/<Name>.cpp into the build tree, and adds them to <target>.
function(kiv_generate target)
  set(outdir ${CMAKE_CURRENT_BINARY_DIR}/generated)
  foreach(def IN LISTS ARGN)
    get_filename_component(abs ${def} ABSOLUTE)
    get_filename_component(stem ${def} NAME_WE)
    set(hdr ${outdir}/${stem}.h)
    set(src ${outdir}/${stem}.cpp)
    set(testing ${outdir}/${stem}Testing.h)
    set(mhdr ${outdir}/${stem}Machines.h)
    set(msrc ${outdir}/${stem}Machines.cpp)
    # kivc rewrites an output only when its text changed, so unchanged definitions rebuild nothing.
    add_custom_command(
      OUTPUT ${hdr} ${src} ${testing} ${mhdr} ${msrc}
      COMMAND kivc --out-dir ${outdir} ${abs}
      DEPENDS kivc ${abs}
      COMMENT "kivc ${def}"
      VERBATIM)
    target_sources(${target} PRIVATE ${hdr} ${src} ${mhdr} ${msrc})
  endforeach()
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${outdir}>)
  set_property(TARGET ${target} PROPERTY KIV_GENERATED_DIR ${outdir})
endfunction()
