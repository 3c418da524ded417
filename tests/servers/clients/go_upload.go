// SPDX-License-Identifier: MIT

// usage: go_upload URL FILE...
//
// Sends the files and a field as a form with mime/multipart, and prints the response.
package main

import (
	"bytes"
	"io"
	"log"
	"mime/multipart"
	"net/http"
	"os"
	"path/filepath"
)

func check(err error) {
	if err != nil {
		log.Fatal(err)
	}
}

func main() {
	var body bytes.Buffer
	form := multipart.NewWriter(&body)
	check(form.WriteField("note", "caf\u00e9 & tea"))
	for _, path := range os.Args[2:] {
		content, err := os.ReadFile(path)
		check(err)
		part, err := form.CreateFormFile("file", filepath.Base(path))
		check(err)
		_, err = part.Write(content)
		check(err)
	}
	check(form.Close())
	response, err := http.Post(os.Args[1], form.FormDataContentType(), &body)
	check(err)
	_, err = io.Copy(os.Stdout, response.Body)
	check(err)
}
