#!/usr/bin/perl
# SPDX-License-Identifier: MIT
# usage: perl_upload.pl URL FILE...
# Sends the files and a field as a form with LWP, and prints the response.
use strict;
use warnings;
use HTTP::Request::Common qw(POST);
use LWP::UserAgent;

my ($url, @paths) = @ARGV;
my $request = POST $url,
    Content_Type => 'form-data',
    Content => [note => "caf\xc3\xa9 & tea", map { (file => [$_]) } @paths];
print LWP::UserAgent->new->request($request)->content, "\n";
