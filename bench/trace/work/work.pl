# A workload: text taken apart and put into a hash.
my %words;
for my $i (1 .. 20000) {
    my @parts = map { "$_-$i" } split / /, "some words to take apart";
    $words{ $parts[ $i % 5 ] } .= join ",", @parts;
}
print scalar(keys %words), "\n";
