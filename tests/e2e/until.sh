# until.sh COMMAND: waits, up to 20 s, until the shell command succeeds.
n=0
until sh -c "$1"; do
    n=$((n + 1))
    [ $n -lt 2000 ] || { echo "never came true: $1"; exit 1; }
    sleep 0.01
done
