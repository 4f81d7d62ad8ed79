# For scripts/demo: what happens in the box, in the order in which it is told. Each step ends the demo when it does not
# hold.
# shellcheck shell=bash

docs=$volume/docs
width=100
spy=/run/demo/events   # a second queue of the same folder, which nobody empties

# --- Saying things. ---

chapter() {
  printf '\n== %s\n' "$*"
}

shown() {
  printf '$ %s\n' "$*"
}

# run COMMAND...   shows the command, runs it, and shows the first lines of what it says, cut to fit
run() {
  local status=0
  shown "$(quoted "$@")"
  "$@" >/run/demo/said 2>&1 || status=$?
  fitted </run/demo/said
  [ $status -eq 0 ] || fail "that failed with exit status $status"
}

# Only what has to be is in quotes, as a person types it.
quoted() {
  local word text=
  for word in "$@"; do
    if [[ $word =~ ^[A-Za-z0-9_./:=*+-]+$ ]]; then text+=" $word"; else text+=" '$word'"; fi
  done
  echo "${text# }"
}

fitted() {
  local line
  while IFS= read -r line; do
    line=${line//$'\t'/  }
    [ ${#line} -le $((width - 2)) ] || line=${line:0:width - 5}...
    printf '  %s\n' "$line"
  done
}

# grouped NUMBER   12345 as 12,345
grouped() {
  local number=$1 text=
  while [ ${#number} -gt 3 ]; do
    text=,${number: -3}$text
    number=${number::-3}
  done
  echo "$number$text"
}

# seconds US   tenths of a second
seconds() {
  printf '%d.%d s' $(($1 / 1000000)) $(($1 % 1000000 / 100000))
}

# duration US   milliseconds, or seconds where it is many
duration() {
  if [ "$1" -lt 2000000 ]; then printf '%d ms' $((($1 + 500) / 1000)); else seconds "$1"; fi
}

# --- Asking. ---

# member NAME TEXT   the first number in TEXT, JSON, that is called so; 0 when there is none
member() {
  if [[ $2 =~ \"$1\":([0-9]+) ]]; then echo "${BASH_REMATCH[1]}"; else echo 0; fi
}

hits() {
  member total "$(fileindexctl search --json --limit 1 -- "$1" 2>/dev/null)"
}

# many NUMBER THING   "1 hit", "12,345 hits"
many() {
  if [ "$1" -eq 1 ]; then echo "1 $2"; else echo "$(grouped "$1") $2s"; fi
}

has_hits() {
  [ "$(hits "$2")" -eq "$1" ]
}

folder_is() {
  fileindexctl folder get --status /docs | grep -qE "^status: +$1\$|[[:space:]]$1\$"
}

# on_disk TYPES [FOLDER]   how many files (f) or folders (d) there are in the share, without what is never indexed
on_disk() {
  find "${2:-$docs}" \( -name .git -o -name @eaDir -o -name @tmp -o -name @fileindex -o -name .DS_Store -o -name .Maildir \
    -o -name .Trashes -o -name .TemporaryItems -o -name .Spotlight-V100 -o -name .DocumentRevisions-V100 \
    -o -name .fseventsd -o -name .NIMOPPSDB -o -name '.HFS+ Private Directory Data' -o -path "$docs/#recycle" \
    -o -path "$docs/#snapshot" \) -prune -o -type "$1" -printf x | wc -c
}

index_equals_disk() {
  folder_is finished && [ "$(member documents "$(fileindexctl index stat --json docs)")" -eq \
    $(($(on_disk f) + $(on_disk d))) ]
}

check_index() {
  wait_for 120 index_equals_disk && return
  fileindexctl index stat docs
  fail "the index has not as many documents as there are files and folders: $(on_disk f) and $(on_disk d)"
}

# --- The story. ---

show_box() {
  local backend
  chapter "A box of its own"
  describe_services
  boot
  backend=$(sed -n 's/.*nimotifyd.*event=started.*backend=\([a-z]*\).*/\1/p' "$records" | tail -1)
  echo "Switched on: the change monitor nimotifyd (with ${backend:-?}) and the search daemon nimoelasticd."
  run fileindexctl share register docs "$docs"
  mkdir -p "${spy%/*}"
  ! pid_of fileindexd >/dev/null || fail "the indexing daemon runs though nothing is to be indexed"
  shown "fileindexctl services prepare"
  echo "Nothing is to be indexed yet, so extractor and indexing daemon stay off."
}

add_folder() {
  local start before now
  chapter "A folder is indexed"
  fileindexctl monitor register "$spy" "$docs" --app demo --ignore @eaDir
  start=$(now_us)
  run fileindexctl folder add /docs --name Documents
  pid_of fileindexd >/dev/null && pid_of nimocontentextractd >/dev/null || fail "the library started no services"
  echo "The library has started extractor and indexing daemon."
  [ -S /run/nimocontentextractd.sock ] && [ -S /run/fileindexd.sock ] || fail "they were not waited for"
  watch_progress
  index_us=$(($(now_us) - start))
  check_index
  ! grep -F event=pass_failed "$records" || fail "the first pass did not meet the others"
  files=$(on_disk f)
  folders=$(on_disk d)
  failed=$(member failed "$(fileindexctl daemon status --json)")
  index_rate=$((files * 1000000 / index_us))
  echo "All is searchable after $(seconds "$index_us"): $(many "$files" file) in $(many "$folders" folder)," \
    "$(many "$index_rate" file) a second."
  [ "$failed" -eq 0 ] || show_failures
}

show_failures() {
  echo "Of $(grouped "$failed") the content could not be read; they are found by name. The first of them:"
  shown "fileindexctl failures"
  fileindexctl failures | sed -n 2,3p | fitted
}

# Until nothing waits any more. Two minutes without progress are a failure.
watch_progress() {
  local said before= quiet=$SECONDS line=$SECONDS all
  all=$(on_disk f,d,l)
  until folder_is finished; do
    said=$(fileindexctl daemon status --json)
    if [ "$said" != "$before" ]; then
      before=$said quiet=$SECONDS
    fi
    [ $((SECONDS - quiet)) -lt 120 ] || fail "nothing moves any more: $said"
    if [ -t 1 ]; then
      printf '\r\033[K%s' "$(progress_line "$said" "$all")"
    elif [ $((SECONDS - line)) -ge 5 ]; then
      line=$SECONDS
      progress_line "$said" "$all"
    fi
    sleep 0.2
  done
  [ ! -t 1 ] || printf '\r\033[K'
}

# progress_line STATUS ALL   what the daemon says, against how much there is: it knows of a folder's files when it gets there
progress_line() {
  local done_ all=$2 bar=########################## file=
  done_=$(member done "$1")
  [ "$done_" -le "$all" ] || all=$done_
  [[ $1 =~ \"file\":\"([^\"]*)\" ]] && file=${BASH_REMATCH[1]##*/}
  printf '  [%-26s] %3d %%  %s of %s, %s/s  %s\n' "${bar:0:26 * done_ / all}" $((100 * done_ / all)) \
    "$(grouped "$done_")" "$(grouped "$all")" "$(grouped "$(member rate "$1")")" "${file:0:36}"
}

# Words of the index that are in many files, one for each first letter, most files first: "COUNT WORD".
frequent_words() {
  local letter word
  for letter in {a..z}; do
    word=$(fileindexctl suggest --share docs --limit 40 "$letter" | awk '/^[a-z]+$/ && length($0) > 4 && length($0) < 13 && !n++')
    [ -z "$word" ] || echo "$(hits "$word") $word"
  done | sort -rn
}

search_documents() {
  local word other kind words
  chapter "Searches"
  run fileindexctl suggest update
  mapfile -t words < <(frequent_words | cut -d' ' -f2)
  if [ ${#words[@]} -eq 0 ]; then
    echo "No file has a word that this script knows to type, so the search goes by extension."
    kind=$(find "$docs" -type f -name '?*.?*' | sed -n 's/.*\.\([a-z0-9]*\)$/\1/p' | awk '$0 && !n++')
    [ -z "$kind" ] || ask 1 --type "$kind" -- '*'
    return 0
  fi
  echo "Paths are shown as they are below $docs."
  word=${words[0]}
  shown "fileindexctl suggest --limit 8 ${word:0:3}"
  fileindexctl suggest --limit 8 "${word:0:3}" | paste -sd ' ' | fitted
  ask 3 "$word"
  for other in "${words[@]:1}"; do
    if [ "$(hits "$word $other")" -gt 0 ]; then ask 2 "$word" "$other" --sort modified --desc; break; fi
  done
  ask 2 "${words[-1]:0:4}*"
  kind=$(fileindexctl search --json --limit 1 -- "$word" | sed -n 's/.*"extension":\[{"count":[0-9]*,"value":"\([a-z0-9]*\)".*/\1/p')
  [ -z "$kind" ] || ask 2 "$word" --type "$kind"
}

# ask LIMIT ARGUMENT...   a search that has to find something
ask() {
  local limit=$1 start us
  shift
  start=$(now_us)
  fileindexctl search --limit "$limit" "$@" >/run/demo/said
  us=$(($(now_us) - start))
  shown "fileindexctl search --limit $limit $(quoted "$@")      # $(duration $us)"
  sed "s|^$docs/||" /run/demo/said | fitted
  ! grep -q '^0 of' /run/demo/said || fail "nothing is found, though the index has it"
}
