# Jars of the Maven repository, and what goes into those with natives. tools/maven-repository and tools/artifacts read this
# file; `fail`, $version, $cmake, $java_home, $work and $group, the folder of the group in the repository, are theirs.

date=2000-01-01T00:00:00Z # of every entry of a jar
# Those of FFmpeg's libraries that the Java library needs.
shared_libraries=(avcodec avformat avutil swscale swresample)
# What a machine with a Java runtime has; all else that the libraries need lies beside them. glibc was several libraries
# before 2.34.
machine_libraries=" libc.so.6 libm.so.6 libpthread.so.0 libdl.so.2 librt.so.1 libz.so.1 libstdc++.so.6 libgcc_s.so.1"
machine_libraries+=" ld-linux-x86-64.so.2 ld-linux-aarch64.so.1 "

pack() { # pack ARTIFACT CLASSIFIER FOLDER [OPTION...]
  local file=$group/$1/$version/$1-$version$2.jar contents=$3 options=("${@:4}")
  mkdir -p "$contents/META-INF" "${file%/*}"
  cp NOTICE "$contents/META-INF/"
  chmod -R u=rwX,go=rX "$contents"
  "$java_home/bin/jar" --create --file "$file" --date "$date" "${options[@]}" -C "$contents" .
}

soname() { readelf -dW "$1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p'; }

newest_version() { # newest_version PREFIX FILE...: of the symbols of that prefix that the files need
  readelf -VW "${@:2}" | sed -n "s/.* Name: $1_\([0-9.]*\) .*/\1/p" | sort -uV | tail -n 1
}

collect() { # collect FOLDER FFMPEG LIBRARY...: FFmpeg's are named alone
  local folder=$1 ffmpeg=$2 file
  for file in "${@:3}"; do
    [ -f "$file" ] || file=$ffmpeg/lib/lib$file.so
    cp -L "$file" "$folder/$(soname "$file")"
  done
}

finish_natives() { # finish_natives FOLDER STRIP: has them look for one another beside themselves, and checks that nothing is missing
  local file folder=$1
  for file in "$folder"/*; do
    # CMake's own installation edits run paths with this command; libraries that need none of the others have no path.
    ! readelf -dW "$file" | grep -q RUNPATH || printf 'file(RPATH_SET FILE "%s" NEW_RPATH "$ORIGIN")\n' "$file"
  done >"$work/run-paths.cmake"
  "$cmake" -P "$work/run-paths.cmake"
  for file in "$folder"/*; do
    "$2" --strip-unneeded "$file"
  done
  check_natives "$folder"
  (cd "$folder" && sha256sum -- *) >"$work/SHA256SUMS"
  mv "$work/SHA256SUMS" "$folder/"
}

check_natives() {
  local file name dynamic needed path natives=$1
  for file in "$natives"/*; do
    name=${file##*/}
    dynamic=$(readelf -dW "$file")
    path=$(sed -n 's/.*(\(RPATH\|RUNPATH\)).*\[\(.*\)\]/\2/p' <<<"$dynamic")
    for needed in $(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic"); do
      [[ $machine_libraries = *" $needed "* ]] && continue
      [ -f "$natives/$needed" ] || fail "$name needs $needed, which is neither packed nor on every machine"
      [ "$path" = '$ORIGIN' ] || fail "$name needs $needed and looks for it in '$path'"
    done
    [[ $path = '' || $path = '$ORIGIN' ]] || fail "$name looks for libraries in '$path'"
  done
  [ "$(readelf -hW "$file" | sed -n 's/ *Machine: *//p')" = "$(readelf -hW /proc/self/exe | sed -n 's/ *Machine: *//p')" ] ||
    return 0
  # As the linker sees it, which finds what is packed where it is packed and nothing else outside the system's folders.
  for file in "$natives"/*; do
    ldd -r "$file" >"$work/ldd" 2>&1 || fail "$(cat "$work/ldd")"
    ! grep -E 'not found|undefined symbol' "$work/ldd" >&2 || fail "${file##*/} does not load"
    while read -r needed _ path _; do
      [ ! -f "$natives/$needed" ] || [ "$(realpath "$path")" = "$(realpath "$natives/$needed")" ] ||
        fail "${file##*/} finds $needed at $path"
    done <"$work/ldd"
  done
}

# pack_natives PLATFORM ARTIFACT KIND TITLE DESCRIPTION: what lies in $work/KIND/META-INF/KIND/PLATFORM. DESCRIPTION is a folder
# with the licences, and SOURCES, a text that tells what the files were made from.
pack_natives() {
  local contents=$work/$3 description=$5
  local files=("$contents/META-INF/$3/$1"/[!S]*) # all but SHA256SUMS
  mkdir -p "$contents/META-INF/licences"
  cp "$description"/*.txt "$contents/META-INF/licences/"
  cp "$description/SOURCES" "$contents/META-INF/"
  cat >"$work/natives-manifest" <<MANIFEST
Implementation-Title: $4
Implementation-Version: $version
Automatic-Module-Name: com.kelvane.media.$3.${1//-/.}
Needs-Glibc: $(newest_version GLIBC "${files[@]}")
Needs-Libstdcxx: GLIBCXX_$(newest_version GLIBCXX "${files[@]}") CXXABI_$(newest_version CXXABI "${files[@]}")
MANIFEST
  pack "$2" "-$1" "$contents" --manifest "$work/natives-manifest"
}

# make_natives_jars PLATFORM STRIP LIBRARY FFMPEG OPENH264 OPUS DESCRIPTION: both of a platform
make_natives_jars() {
  local platform=$1 strip=$2 library=$3 ffmpeg=$4 openh264=$5 opus=$6 description=$7
  local natives=$work/natives/META-INF/natives/$platform programs=$work/programs/META-INF/programs/$platform
  rm -rf "$work/natives" "$work/programs"
  mkdir -p "$natives" "$programs"
  cp "$library" "$natives/libkelvane_media.so"
  collect "$natives" "$ffmpeg" "$openh264" "$opus" "${shared_libraries[@]}"
  finish_natives "$natives" "$strip"
  pack_natives "$platform" kelvane-media natives 'Kelvane Media, native libraries' "$description"
  cp "$ffmpeg"/bin/ffmpeg "$ffmpeg"/bin/ffprobe "$programs/"
  collect "$programs" "$ffmpeg" "$openh264" "$opus" "${shared_libraries[@]}" avfilter avdevice
  finish_natives "$programs" "$strip"
  pack_natives "$platform" kelvane-tool programs "Kelvane Media, FFmpeg's programs" "$description"
}

sum() { # sum FOLDER: the files that repositories have beside each of theirs
  local file
  find "$1" -type f ! -name '*.sha1' ! -name '*.md5' | while read -r file; do
    printf %s "$(sha1sum <"$file" | cut -d ' ' -f 1)" >"$file.sha1"
    printf %s "$(md5sum <"$file" | cut -d ' ' -f 1)" >"$file.md5"
  done
}
