# Sources that this project is built from, and where they come from. tools/setup and tools/artifacts read this file; `say` and
# `fail` are theirs.

ffmpeg_package_version=7:4.3.7-0+deb11u1
ffmpeg_tarball=ffmpeg_4.3.7.orig.tar.xz
ffmpeg_release=https://ffmpeg.org/releases/ffmpeg-4.3.7.tar.xz # the same file
ffmpeg_tarball_sha256=177d074943251bec33e1f9bc5979378ff5771882482ba9b3aee2cb18dd400554
ffmpeg_licence=COPYING.LGPLv2.1 # goes where the libraries go
ffmpeg_configuration=(
  --disable-everything --disable-autodetect --disable-static --enable-shared --enable-pic
  --disable-doc --disable-ffplay --disable-postproc
  --enable-libopenh264 --enable-zlib --enable-indev=lavfi --enable-protocol=file,pipe
  --enable-protocol=http,tcp # a Spark executor hands its input to the programs at a loopback address
  --enable-decoder=h264,aac,mp3,opus,png,rawvideo,wrapped_avframe,pcm_u8,pcm_s16le,pcm_s24le,pcm_s32le,pcm_f32le
  --enable-decoder=pcm_s8,pcm_s16be,pcm_s24be,pcm_s32be,pcm_f32be,pcm_f64le,pcm_alaw,pcm_mulaw
  --enable-encoder=libopenh264,aac,png,rawvideo,wrapped_avframe,pcm_s16le
  --enable-parser=h264,aac,mpegaudio,opus
  --enable-demuxer=hls,h264,mov,matroska,flv,mpegts,aac,mp3,wav,ogg,pcm_s16le
  --enable-muxer=hls,mpegts,flv,h264,mp4,matroska,adts,ogg,opus,wav,pcm_s16le,image2,rawvideo,data,framecrc,null
  --enable-bsf=h264_mp4toannexb,h264_metadata,extract_extradata,aac_adtstoasc
  --enable-filter=mandelbrot,testsrc2,color,nullsrc,hue,format,scale,fps,setpts,trim,select,split,tile,pad,hstack,vstack
  --enable-filter=drawbox,setsar,setparams,aevalsrc,psnr,ssim,null,sine,anullsrc,anull,aformat,aresample,atrim,asetpts
)

# The address of the machine's Debian archive; empty while apt has not read its lists.
debian_archive() {
  apt-get indextargets --format '$(ORIGIN) $(RELEASE) $(COMPONENT) $(REPO_URI)' 'Created-By: Packages' |
    awk '!found && $1 == "Debian" && $2 !~ /-/ && $3 == "main" { print $4; found = 1 }'
}

# A source package of one of Debian's releases, from the machine's own archive through a source list of our own, so that its apt
# configuration stays as it is.
fetch_from_debian() { # fetch_from_debian RELEASE PACKAGE VERSION FOLDER
  local archive apt
  apt=$(realpath -m "$4").apt # apt takes other paths for its own folder's
  archive=$(debian_archive)
  [ -n "$archive" ] || { apt-get -qq update && archive=$(debian_archive); }
  [ -n "$archive" ] || { say "no Debian archive is configured"; return 1; }
  say "fetching the source package $2 $3"
  mkdir -p "$apt/lists/partial" "$4"
  printf 'deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] %s %s main\n' "$archive" "$1" >"$apt/sources.list"
  local options=(-qq -o "Dir::Etc::SourceList=$apt/sources.list" -o Dir::Etc::SourceParts=/dev/null
    -o "Dir::State::Lists=$apt/lists" -o APT::Sandbox::User=root -o APT::Update::Error-Mode=any)
  apt-get "${options[@]}" update && (cd "$4" && apt-get "${options[@]}" source --download-only "$2=$3")
}

# Later releases have no FFmpeg 4; Debian 11's two patches are for processors of other kinds. Without Debian 11 in an archive,
# FFmpeg's own release.
fetch_ffmpeg_source() { # fetch_ffmpeg_source FOLDER
  local file=$1/$ffmpeg_tarball
  fetch_from_debian bullseye ffmpeg "$ffmpeg_package_version" "$1" || {
    rm -f "$file"
    say "Debian 11's source package cannot be had; fetching $ffmpeg_release"
    /usr/lib/apt/apt-helper -o APT::Sandbox::User=root download-file "$ffmpeg_release" "$file" >/dev/null
  } || fail "FFmpeg's source could not be fetched; name a local FFmpeg 4.3.7 tarball with FFMPEG_SOURCE"
  echo "$ffmpeg_tarball_sha256  $file" | sha256sum --check --quiet ||
    fail "$ffmpeg_tarball is not the file that was released"
}
