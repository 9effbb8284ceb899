# Sourced by scripts/fuzz and scripts/fuzz-campaign.
#
#   copy_seeds DEST PATH...
# copies each existing PATH into the corpus folder DEST: a folder's files (not its README.md),
# a .txt file as one input per line (blank and "#" lines skipped), any other file as it is.
copy_seeds() {
  local dest="$1" seed line n
  shift
  for seed in "$@"; do
    [[ -e "$seed" ]] || continue
    if [[ -d "$seed" ]]; then
      find "$seed" -type f ! -name README.md -exec cp -t "$dest" {} +
    elif [[ "$seed" == *.txt ]]; then
      n=0
      while IFS= read -r line; do
        [[ -z "$line" || "$line" == \#* ]] && continue
        printf '%s' "$line" >"$dest/$(basename "$seed" .txt)-$((n++))"
      done <"$seed"
    else
      cp "$seed" "$dest/"
    fi
  done
}
