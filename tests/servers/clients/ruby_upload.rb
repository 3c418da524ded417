#!/usr/bin/ruby
# SPDX-License-Identifier: MIT
# usage: ruby_upload.rb URL FILE...
# Sends the files and a field as a form with net/http, and prints the response.
require 'net/http'

uri = URI(ARGV[0])
request = Net::HTTP::Post.new(uri)
files = ARGV.drop(1).map { |path| ['file', File.open(path, 'rb')] }
request.set_form([['note', "caf\u00e9 & tea"], *files], 'multipart/form-data')
puts Net::HTTP.start(uri.hostname, uri.port) { |http| http.request(request).body }
