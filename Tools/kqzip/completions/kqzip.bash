# Completion of kqzip's arguments for bash: commands, options, archives, and the names in an archive.
# To be read by ~/.bashrc, or installed as /usr/share/bash-completion/completions/kqzip.

# Splits the text $1 at its blanks as the shell would, without expanding anything, into the array _kqzip_words.
# The last word is the one that is being written, empty behind a blank. Quotes and backslashes are taken off.
_kqzip_split() {
  local text=$1 quote='' word='' started='' character i
  _kqzip_words=()
  for ((i = 0; i < ${#text}; ++i)); do
    character=${text:i:1}
    if [[ $quote == "'" ]]; then
      if [[ $character == "'" ]]; then quote=''; else word+=$character; fi
    elif [[ $character == \\ ]]; then
      # Between double quotes a backslash stands for itself but in front of these.
      if [[ $quote == '"' && ${text:i+1:1} != [\$\`\"\\] ]]; then
        word+=$character
      else
        ((++i))
        word+=${text:i:1}
      fi
      started=1
    elif [[ $quote == '"' ]]; then
      if [[ $character == '"' ]]; then quote=''; else word+=$character; fi
    elif [[ $character == [\'\"] ]]; then
      quote=$character
      started=1
    elif [[ $character == [[:space:]] ]]; then
      if [[ $started ]]; then _kqzip_words+=("$word"); fi
      word=''
      started=''
    else
      word+=$character
      started=1
    fi
  done
  _kqzip_words+=("$word")
}

# Sets _kqzip_path to the path $1, with its "~/" as the home folder as the shell would have it.
_kqzip_expand() {
  _kqzip_path=$1
  if [[ $1 == "~"/* ]]; then _kqzip_path=$HOME/${1:2}; fi
}

# Adds the files that begin with $1: folders, and of the rest those that the pattern $2 matches.
_kqzip_add_files() {
  local begin=$1 file
  _kqzip_expand "$begin"
  for file in "$_kqzip_path"*; do
    [[ -e $file || -L $file ]] || continue
    [[ -d $file || $file == $2 ]] || continue
    COMPREPLY+=("$begin${file:${#_kqzip_path}}")
  done
}

# Adds archives, or where there is none any file: an archive may have any name.
_kqzip_add_archives() {
  local archive
  _kqzip_add_files "$1" "*.[zZ][iI][pP]"
  for archive in "${COMPREPLY[@]}"; do
    _kqzip_expand "$archive"
    [[ -d $_kqzip_path ]] || return
  done
  COMPREPLY=()
  _kqzip_add_files "$1" "*"
}

# Adds the names in the archive $2 that begin with $3, each as far as its next "/". $1 is the tool.
_kqzip_add_entries() {
  local tool=$1 begin=$3 name rest
  local -A seen=()
  _kqzip_expand "$2"
  while IFS= read -r -d '' name; do
    [[ $name == "$begin"* && -n $name ]] || continue
    rest=${name:${#begin}}
    [[ $rest != */* ]] || name=$begin${rest%%/*}/
    [[ -n ${seen[$name]} ]] && continue
    seen[$name]=1
    COMPREPLY+=("$name")
  done < <("$tool" list -0 -- "$_kqzip_path" 2>/dev/null)
  # Behind a folder goes what is in it.
  if [[ ${#COMPREPLY[@]} == 1 && ${COMPREPLY[0]} == */ ]]; then compopt -o nospace 2>/dev/null; fi
}

# The options of the command $1, or of the tool.
_kqzip_options() {
  case $1 in
    create) echo "-k --keep-parent --verify --exact -q --quiet --help" ;;
    list) echo "-l --long -0 --null -h --human-readable --json --help" ;;
    extract) echo "-C --directory -j --jobs -v --verbose --dry-run -x --exclude --strip-components --existing -n --keep-damaged --unsafe-paths -q --quiet --help" ;;
    verify) echo "-q --quiet -h --human-readable --json --help" ;;
    cat | conform | help) echo "--help" ;;
    "") echo "-h --help --version" ;;
  esac
}

# Those of extract that have a value behind them.
_kqzip_options_with_value="-C|-[!-]*C|--directory|-j|--jobs|-x|--exclude|--strip-components|--existing"

_kqzip_commands="create conform list extract cat verify help"

# Adds what may stand in the place of the positional argument number $3 of the command $2; $1 is the tool, $4
# the archive, $5 what is written so far.
_kqzip_add_argument() {
  case $2:$3 in
    :*) mapfile -t COMPREPLY < <(compgen -W "$_kqzip_commands" -- "$5") ;;
    help:0) mapfile -t COMPREPLY < <(compgen -W "$_kqzip_commands" -- "$5") ;;
    create:0 | conform:0 | list:0 | extract:0 | cat:0 | verify:0) _kqzip_add_archives "$5" ;;
    create:*) _kqzip_add_files "$5" "*" ;;
    extract:* | cat:1) _kqzip_add_entries "$1" "$4" "$5" ;;
  esac
}

# Takes off the replies what stands in front of the part that readline replaces: it takes ":" and "=" for the
# ends of words.
_kqzip_trim() {
  local current=$1 part=${COMP_WORDS[COMP_CWORD]} head='' i
  case $part in
    : | =) head=$current ;;
    *)
      _kqzip_split "$part"
      part=${_kqzip_words[0]}
      if [[ $current == *"$part" ]]; then head=${current%"$part"}; fi
      ;;
  esac
  for i in "${!COMPREPLY[@]}"; do COMPREPLY[i]=${COMPREPLY[i]#"$head"}; done
}

_kqzip() {
  local _kqzip_words=() _kqzip_path tool option='' command='' archive='' position=0 ended='' word i restore
  COMPREPLY=()
  _kqzip_split "${COMP_LINE:0:COMP_POINT}"
  _kqzip_expand "${_kqzip_words[0]}"
  tool=$_kqzip_path
  local last=$((${#_kqzip_words[@]} - 1))
  local current=${_kqzip_words[last]}
  for ((i = 1; i < last; ++i)); do
    word=${_kqzip_words[i]}
    if [[ ! $ended && $word == -- ]]; then
      ended=1
    elif [[ ! $ended && $word == -?* ]]; then
      if [[ $command == extract && $word == @($_kqzip_options_with_value) ]]; then
        option=$word
        ((++i))
      fi
    elif [[ ! $command ]]; then
      command=$word
    else
      ((position++)) || archive=$word
    fi
  done
  restore=$(shopt -p nullglob failglob)
  shopt -s nullglob
  shopt -u failglob
  compopt -o filenames 2>/dev/null
  # The option's value: the word behind it is not counted, so its place is one too far.
  if ((i > last)); then
    case $option in
      *C | --directory) _kqzip_add_files "$current" "" ;;
      --existing) mapfile -t COMPREPLY < <(compgen -W "replace keep newer fail" -- "$current") ;;
      -x | --exclude) _kqzip_add_entries "$tool" "$archive" "$current" ;;
    esac
  elif [[ ! $ended && $command == extract && $current == --directory=* ]]; then
    _kqzip_add_files "${current#*=}" ""
    current=${current#*=}
  elif [[ ! $ended && $current == -* ]]; then
    compopt +o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -W "$(_kqzip_options "$command")" -- "$current")
  else
    _kqzip_add_argument "$tool" "$command" "$position" "$archive" "$current"
  fi
  eval "$restore"
  _kqzip_trim "$current"
}

complete -F _kqzip kqzip
