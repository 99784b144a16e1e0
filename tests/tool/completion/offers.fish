# What fish offers at the end of a command line, one word on a line.
#   fish --no-config offers.fish SCRIPT 'greirige partition s'
source $argv[1]
complete -C $argv[2] | string replace -r '\t.*' ''
