#!/bin/sh
# Compares the host's hand-written interface headers with what hidl-gen makes of the .hal files: the same operations,
# reply functions and look-ups in the same order, the same enumeration, the same descriptors. Also the device's build files.
# usage: interfaces_test.sh SOURCE_DIR
# Exits with 77 when hidl-gen is not installed.
set -eu

command -v hidl-gen >/dev/null || { echo "hidl-gen is not installed: skipped"; exit 77; }

source_dir=$1
headers=$source_dir/host/libhidl/include
imports=$source_dir/tests/host/data/hal/android
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# generate LANGUAGE PACKAGE
generate() {
    hidl-gen -p "$source_dir" -R -o "$work" -L "$1" \
        -r korvanta.hardware:interfaces/korvanta/hardware \
        -r android.hidl:"${imports#"$source_dir"/}"/hidl -r android.hardware:"${imports#"$source_dir"/}"/hardware "$2"
}

# Prints what a header declares, one declaration a line, in order, without white space, namespaces and default bodies.
declarations() {
    perl -0777 -ne '
        s{//[^\n]*}{}g; s{/\*.*?\*/}{}gs;
        while (m!(virtual\b[^;\{]*|using\s+\w+_cb\s*=[^;]*|enum\s+class\s+\w+\s*:\s*\w+\s*\{[^\}]*
                 |static[^;\{]*\b(?:castFrom|tryGetService|getService|registerForNotifications)\([^;\{]*
                 |(?:__attribute__[^;]*)?\bregisterAsService\([^;]*|static\s+const\s+char\s*\*\s*descriptor)!gx) {
            my $text = $1;
            $text =~ s/=\s*0\s*$//;
            $text =~ s/(?:::)?(?:\w+::)+//g;
            $text =~ s/\s+/ /g;
            $text =~ s/ ?([^\w ]) ?/$1/g;
            $text =~ s/,$//;
            $text =~ s/ $//;
            print "$text\n";
        }' "$1"
}

descriptor() {
    sed -n 's/.*Fully qualified interface name: \("[^"]*"\).*/\1/p' "$1"
}

# The base interface's reply functions, which every interface repeats and ours inherit.
inherited='^using (interfaceChain|interfaceDescriptor|getHashChain|getDebugInfo)_cb='
# What only a registered service needs.
services='[gG]etService|registerAsService|registerForNotifications'
nothing='^$'

# compare HEADER FEWEST LEFT_OUT: the file under both include folders; how many declarations it has at least, so that
# an extraction that finds nothing does not pass; and what ours leaves out.
compare() {
    declarations "$work/$1" | grep -vE "$3" >"$work/generated"
    declarations "$headers/$1" >"$work/ours"
    if [ "$(wc -l <"$work/generated")" -lt "$2" ]; then
        echo "$1: expected at least $2 declarations in hidl-gen's header:"
        cat "$work/generated"
        failed=1
    fi
    if ! diff -u --label "hidl-gen $1" --label "ours $1" "$work/generated" "$work/ours"; then
        failed=1
    fi
    name=$(descriptor "$work/$1")
    if [ -n "$name" ] && ! grep -qF "$name;" "$source_dir"/host/libhidl/*.cpp; then
        echo "$1: no descriptor $name in host/libhidl"
        failed=1
    fi
}

# The device's build file of a package, but for where it is installed and in which languages.
compare_build_file() {
    file=interfaces/korvanta/hardware/camera/desktop/$1/Android.bp
    generate androidbp "korvanta.hardware.camera.desktop@$1"
    for side in "$work" "$source_dir"; do
        grep -vE '^(//|$)|_specific:|gen_java:' "$side/$file" >"$work/${side##*/}.bp"
    done
    diff -u "$work/${work##*/}.bp" "$work/${source_dir##*/}.bp" || failed=1
}

for package in korvanta.hardware.camera.desktop@1.0 korvanta.hardware.camera.desktop@2.0 android.hidl.base@1.0 \
    android.hardware.graphics.bufferqueue@1.0; do
    generate c++-headers "$package"
done

failed=0
for version in 1.0 2.0; do
    compare_build_file $version
done
compare android/hidl/base/1.0/IBase.h 17 "$nothing"
compare korvanta/hardware/camera/desktop/1.0/ICameraDesktopCallback.h 16 "$inherited|$services"
compare korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h 30 "$inherited"
compare korvanta/hardware/camera/desktop/2.0/types.h 1 "$nothing"
compare android/hardware/graphics/bufferqueue/1.0/IGraphicBufferProducer.h 48 "$inherited|$services|castFrom"
compare android/hardware/graphics/bufferqueue/1.0/IProducerListener.h 14 "$inherited|$services|castFrom"
exit $failed
